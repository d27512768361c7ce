// Whole requests over loopback: kplc_mulity_read (batches of 1, 8 and 64 DINT
// tags) and kplc_write (one DINT) against the simulator, beside a floor
// measured in the same run.
//
// The floor is a raw-socket client on its own connection to the same
// simulator that sends the very frames the driver sends for the same request
// (built once, by the driver's own frame builders) and takes each reply with
// one blocking recv(): two exchanges per call, nothing else. What the driver
// costs beyond it is its own work (tag lookup, planning, frame building,
// decoding) and its transport discipline (a non-waiting poll to drain stale
// input and a timed wait before every read).
//
// A third client, "polled", is the floor with the driver's transport
// discipline added (a non-waiting poll before each send, a waiting poll before
// each recv): it separates what those system calls cost from what the
// driver's own code costs.
//
// Driver and floor run in alternating blocks, so that load from other work on
// the machine falls on both alike. Every configuration runs twice: as the
// sockets come (Nagle's algorithm on) and with TCP_NODELAY set on the client
// socket (the driver's and the floor's).
//
// Per series: median and 99th percentile latency of one call, calls and tags
// per second, and CPU time (user + system) of the calling thread per call
// (getrusage, RUSAGE_THREAD; the simulator runs on another thread). The sum is
// exact; the kernel's split of it into user and system time is sampled at
// clock ticks and too coarse for calls of tens of microseconds, so it is not
// shown.
//
// Last, the driver's own CPU time per call: the same calls with send, recv
// and poll answered in user space from the replies recorded above (see
// replay_seam.hpp), so that the time taken is the driver's code and nothing
// of the kernel's.
//
// Loopback only: the simulator listens on 127.0.0.1 and nothing else is
// contacted.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench_kit.hpp"
#include "kplc/kplc.h"
#include "plc.hpp"
#include "protocol/frame.hpp"
#include "protocol/read_plan.hpp"
#include "replay_seam.hpp"
#include "server.hpp"
#include "write/write_frames.hpp"

namespace {

namespace rd = kplc::proto::read;
using Clock = std::chrono::steady_clock;
using kplc::bench::percentile;

struct Options {
    int calls = 1000;          // calls per block
    int rounds = 2;            // alternating driver/floor blocks per series
    std::string only;          // run only this series ("read1", "read8", "read64", "write")
    bool nodelay_only = false; // skip the Nagle-on configuration
    bool nagle_only = false;   // skip the TCP_NODELAY configuration
    // Batch sizes of the read series, at most kTags each; the write series follows them.
    std::vector<std::size_t> sizes{1, 8, 64};
};

// The tag file's global DINT tags: the largest batch.
constexpr std::size_t kTags = 64;

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "e2e_loopback: %s\n", what);
    std::exit(1);
}

double cpu_us(const timeval &tv) { return static_cast<double>(tv.tv_sec) * 1e6 + static_cast<double>(tv.tv_usec); }

struct CpuTime {
    double user = 0, sys = 0;
    static CpuTime now() {
        rusage ru{};
        getrusage(RUSAGE_THREAD, &ru);
        return {cpu_us(ru.ru_utime), cpu_us(ru.ru_stime)};
    }
};

// Samples of one series (one kind of call by one client).
struct Series {
    std::vector<double> us;  // latency of each call
    double wall_us = 0;      // sum of the calls' latencies
    double user_us = 0, sys_us = 0;

    template <typename Call>
    void run_block(int calls, Call &&call) {
        const CpuTime cpu0 = CpuTime::now();
        for (int i = 0; i < calls; ++i) {
            const auto t0 = Clock::now();
            call();
            const double us_taken = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
            us.push_back(us_taken);
            wall_us += us_taken;
        }
        const CpuTime cpu1 = CpuTime::now();
        user_us += cpu1.user - cpu0.user;
        sys_us += cpu1.sys - cpu0.sys;
    }
};

void set_nodelay(int fd, bool on) {
    const int value = on ? 1 : 0;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) != 0) fail("TCP_NODELAY refused");
}

// The floor's client: one connection, blocking send and recv.
class RawClient {
public:
    explicit RawClient(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(kplc::harness::kLoopback);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            fail("floor client cannot connect");
    }
    ~RawClient() { ::close(fd_); }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;
    [[nodiscard]] int fd() const { return fd_; }

    // One exchange; returns the reply's length. A reply that arrives in
    // pieces is read to `expect` bytes (0: take one read, as the driver does).
    // `polled`: drain-check with a non-waiting poll before the send and wait
    // with poll before the read, as the driver's transport does.
    std::size_t exchange(std::span<const uint8_t> frame, std::size_t expect = 0, bool polled = false) {
        pollfd p{fd_, POLLIN, 0};
        if (polled && ::poll(&p, 1, 0) != 0) fail("stale input on the floor's connection");
        if (::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
            fail("floor send failed");
        if (polled && ::poll(&p, 1, 1000) != 1) fail("no reply within 1 s");
        std::size_t got = 0;
        do {
            const ssize_t n = ::recv(fd_, reply_.data() + got, reply_.size() - got, 0);
            if (n <= 0) fail("floor recv failed");
            got += static_cast<std::size_t>(n);
        } while (got < expect);
        return got;
    }
    [[nodiscard]] std::span<const uint8_t> reply(std::size_t n) const { return std::span(reply_).first(n); }

private:
    int fd_ = -1;
    std::array<uint8_t, rd::kFrameSize> reply_{};
};

// Two request frames and the lengths of their replies.
struct FramePair {
    std::vector<uint8_t> first, second;
    std::size_t first_reply = 0, second_reply = 0;
    std::vector<uint8_t> first_bytes, second_bytes;  // the replies themselves

    void keep(std::span<const uint8_t> one, std::span<const uint8_t> two) {
        first_bytes.assign(one.begin(), one.end());
        second_bytes.assign(two.begin(), two.end());
    }
    [[nodiscard]] uint16_t command(const std::vector<uint8_t> &frame) const {
        return static_cast<uint16_t>(frame[10] << 8 | frame[11]);
    }
};

// A read batch of n global DINT tags (ids 1..n) with its runtime buffers.
struct ReadBatch {
    std::vector<Reg> regs;
    std::vector<std::array<uint8_t, 4>> values;
    std::vector<DrvRWBuf> bufs;
    std::vector<DrvRWBuf *> ptrs;

    explicit ReadBatch(std::size_t n) : regs(n), values(n), bufs(n), ptrs(n) {
        for (std::size_t i = 0; i < n; ++i) {
            regs[i] = Reg{};
            regs[i].regId = static_cast<U16>(i + 1);
            regs[i].regNums = 4;
            bufs[i] = DrvRWBuf{0, values[i].data(), 4, 0};
            ptrs[i] = &bufs[i];
        }
    }
};

// The frames of the batch's one read pass, built by the read path's own
// planner and builders; the resolve reply comes from the simulator over the
// floor's connection.
FramePair read_frames(ReadBatch &batch, std::span<kplc_tag_str> table, RawClient &client) {
    auto plan = std::make_unique<rd::PassPlan>();
    rd::plan_pass(*plan, table, batch.regs, batch.ptrs, kplc::proto::kGlobalScope, {});
    if (plan->reading != batch.regs.size()) fail("batch refused by the planner");
    std::array<uint8_t, rd::kFrameSize> frame{};
    FramePair pair;
    std::size_t len = rd::build_resolve_request(*plan, frame, 0);
    pair.first.assign(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(len));
    pair.first_reply = client.exchange(pair.first);
    const std::vector<uint8_t> resolve_reply(client.reply(pair.first_reply).begin(),
                                             client.reply(pair.first_reply).end());
    len = rd::build_location_request(*plan, resolve_reply, frame, 1);
    if (len == 0) fail("resolve reply too short");
    pair.second.assign(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(len));
    pair.second_reply = client.exchange(pair.second);
    pair.keep(resolve_reply, client.reply(pair.second_reply));
    return pair;
}

// The frames of a DINT write of the tag `name`: symbol resolve, then a
// two-word write, built by the write path's own builders.
FramePair write_frames(const char *name, std::span<const uint8_t, 4> value, RawClient &client) {
    std::array<uint16_t, kplc::proto::kMaxNameUnits + 1> units{};
    const auto n = kplc::proto::name_units(name, units);
    if (!n) fail("name not convertible");
    std::array<uint8_t, kplc::write::kRequestSize> frame{};
    FramePair pair;
    std::size_t len =
        kplc::write::build_resolve(frame, 0, kplc::proto::kGlobalScope, std::span(units).first(*n));
    pair.first.assign(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(len));
    pair.first_reply = client.exchange(pair.first);
    const std::vector<uint8_t> resolve_reply(client.reply(pair.first_reply).begin(),
                                             client.reply(pair.first_reply).end());
    const auto item = kplc::proto::ResolveCursor(resolve_reply).item();
    if (!item) fail("resolve reply too short");
    len = kplc::write::build_word_write(frame, 1, *item, 2, value, kplc::write::ValueOrder::PanelWords);
    pair.second.assign(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(len));
    pair.second_reply = client.exchange(pair.second);
    pair.keep(resolve_reply, client.reply(pair.second_reply));
    return pair;
}

struct Result {
    std::string name;
    std::size_t tags = 0;
    bool nodelay = false;
    Series driver, floor, polled;
    FramePair frames;
    std::vector<double> replay_ns;  // driver's own time per call, per block of calls
};

// Times `calls` calls in blocks of 100 with the kernel taken out (see
// replay_seam.hpp); returns the time per call of each block, in nanoseconds.
template <typename Call>
std::vector<double> replay_blocks(const FramePair &f, int calls, Call &&call) {
    namespace rp = kplc::bench::replay;
    rp::clear_replies();
    rp::set_reply(f.command(f.first), f.first_bytes);
    rp::set_reply(f.command(f.second), f.second_bytes);
    constexpr int kBlock = 100;
    std::vector<double> ns;
    rp::activate(true);
    for (int done = 0; done < calls; done += kBlock) {
        const auto t0 = Clock::now();
        for (int i = 0; i < kBlock; ++i) call();
        ns.push_back(std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / kBlock);
    }
    rp::activate(false);
    return ns;
}

void print_series(const char *who, const Result &r, Series s) {
    const auto calls = static_cast<double>(s.us.size());
    const double median = percentile(s.us, 50), p99 = percentile(s.us, 99);
    const double per_s = calls / (s.wall_us / 1e6);
    std::printf("%-7s %-7s %-7s %7zu %9.1f %9.1f %9.0f %10.0f %8.2f\n", r.name.c_str(), who,
                r.nodelay ? "off" : "on", s.us.size(), median, p99, per_s, per_s * static_cast<double>(r.tags),
                (s.user_us + s.sys_us) / calls);
}

Options parse(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--calls" && has_value) o.calls = std::atoi(argv[++i]);
        else if (arg == "--rounds" && has_value) o.rounds = std::atoi(argv[++i]);
        else if (arg == "--only" && has_value) o.only = argv[++i];
        else if (arg == "--nodelay-only") o.nodelay_only = true;
        else if (arg == "--nagle-only") o.nagle_only = true;
        else if (arg == "--sizes" && has_value) {
            o.sizes.clear();
            for (const char *p = argv[++i]; *p != '\0';) {
                char *end = nullptr;
                const unsigned long n = std::strtoul(p, &end, 10);
                if (end == p || n < 1 || n > kTags) fail("--sizes takes batch sizes of 1 to 64, comma-separated");
                o.sizes.push_back(n);
                p = *end == ',' ? end + 1 : end;
            }
        }
        else {
            std::fprintf(stderr,
                         "usage: %s [--calls N] [--rounds R] [--only read1|read8|read64|write] "
                         "[--nagle-only|--nodelay-only] [--sizes 1,8,64]\n",
                         argv[0]);
            std::exit(2);
        }
    }
    if (o.calls < 1 || o.rounds < 1) fail("--calls and --rounds must be at least 1");
    return o;
}

}  // namespace

int main(int argc, char **argv) {
    const Options opt = parse(argc, argv);

    kplc::harness::WorkFolder dir;
    const std::string tags = kplc::bench::dint_tags(kTags);
    dir.write_tag_file(kplc::harness::kLoopback, 0, tags);
    kplc::sim::Plc plc(tags);
    kplc::sim::ServerOptions server_options;
    server_options.listen = "127.0.0.1";
    kplc::sim::Server server(plc, server_options);
    server.start();

    // The planner needs the tag records the driver will load from the same file.
    std::vector<kplc_tag_str> table = kplc::bench::parse_table(tags);

    kplc::harness::Instance driver(kplc::harness::kLoopback, server.port());
    RawClient client(server.port());

    std::array<uint8_t, 4> write_value{0x44, 0x33, 0x22, 0x11};
    Reg write_reg{};
    write_reg.regId = 1;
    write_reg.regNums = 4;

    std::vector<Result> results;
    for (const bool nodelay : {false, true}) {
        if ((nodelay && opt.nagle_only) || (!nodelay && opt.nodelay_only)) continue;
        std::vector<std::size_t> series = opt.sizes;
        series.push_back(0);  // the write
        for (const std::size_t n : series) {
            Result r;
            r.name = n == 0 ? "write" : "read" + std::to_string(n);
            if (!opt.only.empty() && opt.only != r.name) continue;
            r.tags = n == 0 ? 1 : n;
            r.nodelay = nodelay;

            ReadBatch batch(n == 0 ? 1 : n);
            auto driver_read = [&] {
                const unsigned rc = kplc_mulity_read(driver.drv, &driver.port.prop, batch.regs.data(),
                                                     static_cast<int>(n), batch.ptrs.data());
                if (rc != ER_OK) fail("driver read failed");
            };
            auto driver_write = [&] {
                Reg reg = write_reg;
                if (kplc_write(driver.drv, &driver.port.prop, &reg, write_value.data()) != ER_OK)
                    fail("driver write failed");
            };
            // Warm-up: loads the tag tables and starts the link (its socket
            // is then the one the options apply to).
            if (n == 0) driver_write(); else driver_read();
            set_nodelay(driver.settings()->serial_handle, nodelay);
            set_nodelay(client.fd(), nodelay);

            r.frames = n == 0 ? write_frames("V00000", write_value, client) : read_frames(batch, table, client);
            const FramePair &f = r.frames;
            auto floor_call = [&] {
                client.exchange(f.first, f.first_reply);
                client.exchange(f.second, f.second_reply);
            };

            auto polled_call = [&] {
                client.exchange(f.first, f.first_reply, true);
                client.exchange(f.second, f.second_reply, true);
            };

            for (int round = 0; round < opt.rounds; ++round) {
                if (n == 0) r.driver.run_block(opt.calls, driver_write);
                else r.driver.run_block(opt.calls, driver_read);
                r.floor.run_block(opt.calls, floor_call);
                r.polled.run_block(opt.calls, polled_call);
            }
            // The driver's own work, once per series (Nagle cannot matter here).
            if (!nodelay || opt.nodelay_only) {
                const std::array<uint8_t, 4> over_link = batch.values[0];
                batch.values[0] = {};
                if (n == 0) r.replay_ns = replay_blocks(r.frames, opt.calls * opt.rounds, driver_write);
                else r.replay_ns = replay_blocks(r.frames, opt.calls * opt.rounds, driver_read);
                if (n != 0 && batch.values[0] != over_link) fail("replayed read decoded other values");
            }
            results.push_back(std::move(r));
        }
    }
    // What the driver's extra system calls cost here: per exchange it polls
    // once without waiting before the send, and waits with poll() before a
    // recv() where the floor blocks in recv() alone.
    double poll_ns = 0;
    {
        pollfd p{client.fd(), POLLIN, 0};
        constexpr int kPolls = 20000;
        const auto t0 = Clock::now();
        for (int i = 0; i < kPolls; ++i) (void)::poll(&p, 1, 0);
        poll_ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / kPolls;
    }
    server.stop();

    std::printf("kplc_mulity_read / kplc_write against the simulator on 127.0.0.1, beside a raw-socket floor\n");
    std::printf("%-7s %-7s %-7s %7s %9s %9s %9s %10s %8s\n", "series", "client", "Nagle", "calls", "median_us",
                "p99_us", "calls/s", "tags/s", "cpu_us");
    for (const Result &r : results) {
        print_series("driver", r, r.driver);
        print_series("floor", r, r.floor);
        print_series("polled", r, r.polled);
    }
    std::printf("\nratios driver/floor (median, p99, mean latency); polled/floor and driver/polled medians\n");
    std::printf("%-7s %-7s %9s %9s %10s %11s %11s %9s %s\n", "series", "Nagle", "ratio_med", "ratio_p99", "ratio_mean",
                "polled/floor", "drv/polled", "cpu+_us", "frames (request/reply bytes)");
    for (const Result &r : results) {
        Series d = r.driver, f = r.floor, q = r.polled;
        const double qm = percentile(q.us, 50);
        const double dm = percentile(d.us, 50), fm = percentile(f.us, 50);
        const double dp = percentile(d.us, 99), fp = percentile(f.us, 99);
        const auto dc = static_cast<double>(d.us.size()), fc = static_cast<double>(f.us.size());
        const double thr = (d.wall_us / dc) / (f.wall_us / fc);  // mean latency ratio
        // The driver's CPU time per call beyond the floor's (user + system).
        const double extra = (d.user_us + d.sys_us) / dc - (f.user_us + f.sys_us) / fc;
        std::printf("%-7s %-7s %9.3f %9.3f %10.3f %11.3f %11.3f %9.2f %zu/%zu, %zu/%zu\n", r.name.c_str(),
                    r.nodelay ? "off" : "on", dm / fm, dp / fp, thr, qm / fm, dm / qm, extra, r.frames.first.size(),
                    r.frames.first_reply, r.frames.second.size(), r.frames.second_reply);
    }
    std::printf("\none non-waiting poll() on the client socket: %.2f us\n", poll_ns / 1e3);
    std::printf("\ndriver's own time per call, send/recv/poll answered in user space (blocks of 100 calls)\n");
    std::printf("%-7s %9s %9s %9s %12s\n", "series", "min_us", "median_us", "max_us", "per_tag_us");
    for (Result &r : results) {
        if (r.replay_ns.empty()) continue;
        const double lo = percentile(r.replay_ns, 0), med = percentile(r.replay_ns, 50);
        const double hi = percentile(r.replay_ns, 100);
        std::printf("%-7s %9.2f %9.2f %9.2f %12.3f\n", r.name.c_str(), lo / 1e3, med / 1e3, hi / 1e3,
                    med / 1e3 / static_cast<double>(r.tags));
    }
    return 0;
}
