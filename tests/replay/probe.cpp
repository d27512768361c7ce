// A stand-in for the panel runtime: runs a script of driver calls and prints,
// for each, the result code and every runtime buffer in hex, so two runs of
// the same script (against a live simulator and against a replay of its
// capture) can be compared byte for byte.
//
// usage: probe PORT tcp|udp [PAUSE_MS] < SCRIPT   (in a folder holding driver/PLC7F000001_0.csv)
// PAUSE_MS: wait between calls, as a runtime's poll cycle does; it lets a
// close by the PLC arrive before the next call, so the run does not depend on
// which of the two comes first.
// Script lines:  read ID ADDR NUMS [ID ADDR NUMS]...   one kplc_mulity_read batch
//                write ID ADDR HEX                      one kplc_write
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kplc/kplc.h"

namespace {

std::string hex(const std::vector<unsigned char> &bytes) {
    std::string out;
    char b[3];
    for (unsigned char c : bytes) std::snprintf(b, sizeof b, "%02X", c), out += b;
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: probe PORT tcp|udp [PAUSE_MS] < SCRIPT\n");
        return 2;
    }
    struct {
        CommunicationProperty prop;
        ex_login_t extra[1];
    } port{};
    port.prop._sizeExtra = sizeof port.extra;
    port.prop._baud = 0x7F000001;  // 127.0.0.1
    port.prop._datBits = static_cast<U16>(std::atoi(argv[1]));
    port.prop._workMode = std::string(argv[2]) == "udp" ? 1 : 0;
    port.prop._plcGlobalTimeout = 1;
    port.prop._protocalTimeout1 = 50;
    void *drv = kplc_create();
    kplc_init(drv, &port.prop);

    std::string line;
    const auto pause = std::chrono::milliseconds(argc == 4 ? std::atoi(argv[3]) : 0);
    while (std::getline(std::cin, line)) {
        std::this_thread::sleep_for(pause);
        std::istringstream in(line);
        std::string verb;
        in >> verb;
        Reg reg{};
        if (verb == "write") {
            std::string text;
            in >> reg.regId >> reg.regAddr >> text;
            std::vector<unsigned char> value;
            for (std::size_t i = 0; i + 1 < text.size(); i += 2)
                value.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
            reg.regNums = static_cast<U32>(value.size());
            value.push_back(0xEE);  // room for the fill byte a text write may add
            std::printf("%s -> %u\n", line.c_str(), kplc_write(drv, &port.prop, &reg, value.data()));
        } else if (verb == "read") {
            std::vector<Reg> regs;
            while (in >> reg.regId >> reg.regAddr >> reg.regNums) regs.push_back(reg);
            std::vector<std::vector<unsigned char>> data(regs.size(), std::vector<unsigned char>(64, 0xEE));
            std::vector<DrvRWBuf> bufs(regs.size());
            std::vector<DrvRWBuf *> ptrs;
            for (std::size_t i = 0; i < regs.size(); ++i)
                bufs[i] = DrvRWBuf{0, data[i].data(), 64, 0xDEAD}, ptrs.push_back(&bufs[i]);
            const unsigned rc = kplc_mulity_read(drv, &port.prop, regs.data(), static_cast<int>(regs.size()), ptrs.data());
            std::printf("%s -> %u", line.c_str(), rc);
            for (std::size_t i = 0; i < regs.size(); ++i) std::printf(" | %u %s", bufs[i].error, hex(data[i]).c_str());
            std::printf("\n");
        }
        std::fflush(stdout);
    }
    std::free(drv);
    return 0;
}
