// call_cost: the driver's own instructions per call, for the instruction
// budget check (check_call_cost.sh). Runs one kind of call against the
// simulator on a thread of this process: a warm-up that loads the tag tables
// and starts the link, then callgrind's counters are zeroed and `--calls`
// calls are made and dumped as one part.
//
//   valgrind --tool=callgrind --toggle-collect=kplc_mulity_read
//            --toggle-collect=kplc_write bench/call_cost --call read8 --calls 500
//
// --toggle-collect counts only inside the entry points, on the thread that
// calls them, so the simulator's thread is not in the count. Outside
// valgrind the client requests do nothing and the program only makes calls.
#include <valgrind/callgrind.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "bench_kit.hpp"
#include "plc.hpp"
#include "server.hpp"

namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "call_cost: %s\n", what);
    std::exit(1);
}

}  // namespace

int main(int argc, char **argv) {
    std::string call = "read8";
    int calls = 500;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view arg = argv[i];
        if (arg == "--call") call = argv[i + 1];
        else if (arg == "--calls") calls = std::atoi(argv[i + 1]);
        else fail("usage: call_cost [--call read1|read8|read64|write] [--calls N]");
    }
    std::size_t tags = 0;
    if (call == "read1") tags = 1;
    else if (call == "read8") tags = 8;
    else if (call == "read64") tags = 64;
    else if (call != "write") fail("--call takes read1, read8, read64 or write");
    if (calls < 1) fail("--calls must be at least 1");

    kplc::harness::WorkFolder dir;
    const std::string text = kplc::bench::dint_tags(64);
    dir.write_tag_file(kplc::harness::kLoopback, 0, text);
    kplc::sim::Plc plc(text);
    kplc::sim::Server server(plc, kplc::sim::ServerOptions{});
    server.start();
    kplc::harness::Instance driver(kplc::harness::kLoopback, server.port());

    std::vector<Reg> regs(tags == 0 ? 1 : tags);
    std::vector<std::array<uint8_t, 4>> values(regs.size());
    std::vector<DrvRWBuf> bufs(regs.size());
    std::vector<DrvRWBuf *> ptrs(regs.size());
    for (std::size_t i = 0; i < regs.size(); ++i) {
        regs[i].regId = static_cast<U16>(i + 1);
        regs[i].regNums = 4;
        bufs[i] = DrvRWBuf{0, values[i].data(), 4, 0};
        ptrs[i] = &bufs[i];
    }
    std::array<uint8_t, 4> value{0x44, 0x33, 0x22, 0x11};
    const auto one_call = [&] {
        unsigned rc;
        if (tags == 0) {
            Reg reg = regs[0];
            rc = kplc_write(driver.drv, &driver.port.prop, &reg, value.data());
        } else {
            rc = kplc_mulity_read(driver.drv, &driver.port.prop, regs.data(), static_cast<int>(tags), ptrs.data());
        }
        if (rc != ER_OK) fail("a call failed");
    };

    for (int i = 0; i < 3; ++i) one_call();
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < calls; ++i) one_call();
    CALLGRIND_DUMP_STATS_AT("calls");
    server.stop();
    std::printf("call_cost: %d %s calls\n", calls, call.c_str());
    return 0;
}
