// The socket layer against the fake PLC on loopback: one table of the ways a
// link fails (each must report, leave no descriptor behind and close or keep
// the socket as the caller expects) and one of the input an exchange must
// cope with on a working link.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <tuple>

#include "kplc/kplc.h"
#include "testkit/fake_plc.hpp"
#include "harness/instance.hpp"

namespace {

using namespace kplc::testkit;
using namespace kplc::harness;

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

Bytes part(const Bytes &b, std::size_t from, std::size_t n = std::string::npos) {
    const auto first = b.begin() + static_cast<std::ptrdiff_t>(from);
    return Bytes(first, n == std::string::npos ? b.end() : first + static_cast<std::ptrdiff_t>(n));
}

// A catalogue request frame with sequence number `seq`.
Bytes request(uint8_t seq) {
    Bytes frame = hex("00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00");
    frame[9] = seq;
    return frame;
}

// Binds `fd` to an ephemeral loopback port; returns the address.
sockaddr_in bound(int fd, socklen_t &len) {
    sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(FakePlc::kLoopback)}, .sin_zero = {}};
    len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return a;
}

// A loopback listener whose accept queue is full: the kernel drops further
// connection requests, so a connect to it waits until its own bound passes.
struct FullListener {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0), filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    uint16_t port = 0;
    bool ready = false;
    FullListener() {
        socklen_t len;
        const sockaddr_in a = bound(listener, len);
        ::listen(listener, 0);
        port = ntohs(a.sin_port);
        ::connect(filler, reinterpret_cast<const sockaddr *>(&a), len);
        pollfd p{filler, POLLOUT, 0};
        if (::poll(&p, 1, 1000) != 1) return;
        const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);  // does one more connect hang?
        ::connect(probe, reinterpret_cast<const sockaddr *>(&a), len);
        pollfd q{probe, POLLOUT, 0};
        ready = ::poll(&q, 1, 200) == 0;
        ::close(probe);
    }
    ~FullListener() { ::close(filler), ::close(listener); }
};

// One link to 127.0.0.1:port as the driver sets it up.
struct Link {
    PLC_TCP_INIT_PARAMETERS tcp{};
    PLC_DRV_INIT_SETTINGS settings{};
    explicit Link(uint16_t port, bool stream = true) {
        tcp.ipaddr = static_cast<int>(FakePlc::kLoopback), tcp.port = static_cast<int16_t>(port);
        tcp.mode = stream ? 'U' : 0;
        settings.serial_handle = 77;  // a failed connect must leave the caller's value alone
        settings.response_timeout = 1, settings.timeout1 = 50;
    }
    ~Link() {
        if (settings.serial_handle != 77 && is_open(settings.serial_handle)) ::close(settings.serial_handle);
    }
    int connect() { return CommunicationSet(&tcp, &settings); }
    int exchange(uint8_t seq, Bytes &response) {
        Bytes req = request(seq);
        response.assign(4096, 0);
        int len = -1;
        const int rc = TransRecvSockBuff(req.data(), 16, response.data(), &len, &settings);
        response.resize(rc == 0 ? static_cast<std::size_t>(len) : 0);
        return rc;
    }
};

// ---------------------------------------------------------------- link failures

struct Failure {
    const char *what;
    // Sets up and runs the failing step; returns its result.
    std::function<int(Link &, FakePlc &)> run;
    uint16_t port;  // 0: the fake's
    const char *printed;
    bool opened;  // the failure comes after a socket was opened (and must be closed)
    std::chrono::milliseconds at_least{0};
};

void PrintTo(const Failure &f, std::ostream *os) { *os << f.what; }
class LinkFailures : public ::testing::TestWithParam<Failure> {};

TEST_P(LinkFailures, ReportCloseAndLeakNothing) {
    const Failure &f = GetParam();
    FullListener full;
    if (f.port == 1 && !full.ready) GTEST_SKIP() << "this system does not hold back connects to a full listener";
    const std::size_t before = open_descriptors();
    {
        FakePlc plc;
        Link link(f.port == 0 ? plc.port() : f.port == 1 ? full.port : f.port);
        testing::internal::CaptureStdout();
        const auto start = std::chrono::steady_clock::now();
        const int rc = f.run(link, plc);
        const auto took = std::chrono::steady_clock::now() - start;
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(out.ends_with(f.printed)) << out;
        EXPECT_GE(took, f.at_least);
        EXPECT_LT(took, f.at_least + 1500ms);
        if (f.opened)
            EXPECT_FALSE(is_open(link.settings.serial_handle)) << "a failed exchange closes its socket";
        else
            EXPECT_EQ(link.settings.serial_handle, 77) << "a failed connect leaves the handle alone";
    }
    EXPECT_EQ(open_descriptors(), before);
}

int connect_only(Link &l, FakePlc &) { return l.connect(); }
constexpr const char *kConnectFailed = "no matching relative net\r\nconnect to 127.0.0.1 failed\r\n";

INSTANTIATE_TEST_SUITE_P(All, LinkFailures, ::testing::Values(
        Failure{"refused", connect_only, FakePlc::closed_port(), kConnectFailed, false},
        // The connect gives up after the send time-out: (timeout2 mod 10) + 3 seconds.
        Failure{"unanswered", connect_only, 1, kConnectFailed, false, 2900ms},
        Failure{"missing_interface", [](Link &l, FakePlc &) {
            l.tcp.stop_bits = 3;  // wlan0
            return if_nametoindex("wlan0") != 0 ? -1 : l.connect();
        }, 0, "get ip command error\r\n", false},
        Failure{"time_out", [](Link &l, FakePlc &plc) {
            plc.silence();
            Bytes r;
            return l.connect() == 0 ? l.exchange(0, r) : 0;
        }, 0, "--timeout--\r\n", true, 1000ms},
        // The PLC closing gives an empty response with the socket open; the
        // next request draws a reset, which a read may report as one more end
        // of stream before the send after it fails.
        Failure{"peer_close", [](Link &l, FakePlc &plc) {
            plc.close();
            Bytes r{1};
            if (l.connect() != 0 || l.exchange(0, r) != 0 || !r.empty() || !is_open(l.settings.serial_handle))
                return 0;
            int rc = 0;
            for (int i = 0; i < 2 && rc == 0; ++i) rc = l.exchange(1, r);
            return rc;
        }, 0, "", true},
        // A send on a reset connection must not raise SIGPIPE (the test would die of it).
        Failure{"send_on_reset", [](Link &l, FakePlc &plc) {
            plc.close();
            Bytes r;
            if (l.connect() != 0 || l.exchange(0, r) != 0) return 0;
            const Bytes frame = request(1);
            int rc = 0;
            for (int i = 0; i < 3 && rc >= 0; ++i) rc = send_e(frame.data(), 16, &l.settings);
            return rc;
        }, 0, "send error\n", true}),
    [](const auto &info) { return std::string(info.param.what); });

// With interface 1 selected, the socket is bound to eth0's address before it connects.
TEST(Connect, BindsToTheSelectedInterface) {
    ifreq eth0{};
    std::strncpy(eth0.ifr_name, "eth0", IFNAMSIZ - 1);
    const int probe = ::socket(AF_INET, SOCK_DGRAM, 0);
    const bool present = ::ioctl(probe, SIOCGIFADDR, &eth0) == 0;
    ::close(probe);
    if (!present) GTEST_SKIP() << "no eth0 with an IPv4 address here";
    FakePlc plc;
    Link link(plc.port());
    link.tcp.stop_bits = 1;
    testing::internal::CaptureStdout();
    ASSERT_EQ(link.connect(), 0);
    (void)testing::internal::GetCapturedStdout();
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(link.settings.serial_handle, reinterpret_cast<sockaddr *>(&local), &len);
    EXPECT_EQ(local.sin_addr.s_addr, reinterpret_cast<const sockaddr_in *>(&eth0.ifr_addr)->sin_addr.s_addr);
}

// A datagram link sends to the PLC's address, which it works out itself.
TEST(Connect, DatagramTargetIsThePlcsAddress) {
    PLC_TCP_INIT_PARAMETERS tcp{};
    tcp.ipaddr = static_cast<int>(0x7F000002), tcp.port = 8500;
    sockaddr_in to;
    std::memset(&to, 0xAA, sizeof to);
    ASSERT_EQ(get_server_ip(&tcp, &to), 0);
    EXPECT_EQ(std::tuple(to.sin_family, ntohl(to.sin_addr.s_addr), ntohs(to.sin_port)),
              std::tuple(sa_family_t{AF_INET}, 0x7F000002u, uint16_t{8500}));
}

// ---------------------------------------------------------------- exchange input

struct Input {
    const char *what;
    std::function<void(FakePlc &)> script;
    // Per exchange: the response time-out and the response (or nothing for a failure).
    std::vector<std::pair<uint32_t, std::optional<Bytes>>> exchanges;
    bool udp = false;
    int move_to = 0;  // move the socket to this descriptor number first
};

void PrintTo(const Input &c, std::ostream *os) { *os << c.what; }
class ExchangeInput : public ::testing::TestWithParam<Input> {};

TEST_P(ExchangeInput, EachExchangeReturnsItsOwnAnswer) {
    const Input &c = GetParam();
    const rlimit saved = [] { rlimit l{}; getrlimit(RLIMIT_NOFILE, &l); return l; }();
    if (c.move_to != 0) {
        rlimit raised = saved;
        raised.rlim_cur = static_cast<rlim_t>(c.move_to) + 1;
        if (saved.rlim_max != RLIM_INFINITY && saved.rlim_max <= raised.rlim_cur) GTEST_SKIP() << "limit too low";
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    }
    FakePlc plc(c.udp ? FakePlc::Transport::Udp : FakePlc::Transport::Tcp);
    c.script(plc);
    Link link(plc.port(), !c.udp);
    testing::internal::CaptureStdout();
    ASSERT_EQ(link.connect(), 0);
    (void)testing::internal::GetCapturedStdout();
    if (c.move_to != 0) {
        ASSERT_EQ(dup2(link.settings.serial_handle, c.move_to), c.move_to);
        ::close(link.settings.serial_handle);
        link.settings.serial_handle = c.move_to;
    }
    for (std::size_t i = 0; i < c.exchanges.size(); ++i) {
        const auto &[timeout, want] = c.exchanges[i];
        ASSERT_TRUE(plc.wait_idle()) << "the fake still sends to exchange " << i;
        link.settings.response_timeout = timeout;
        Bytes response;
        testing::internal::CaptureStdout();
        const int rc = link.exchange(static_cast<uint8_t>(i), response);
        const std::string out = testing::internal::GetCapturedStdout();
        ASSERT_EQ(rc, want ? 0 : -1) << "exchange " << i;
        if (want)
            EXPECT_EQ(to_hex(response), to_hex(*want)) << "exchange " << i;
        else
            EXPECT_EQ(out, "--timeout--\r\n");
    }
    ASSERT_TRUE(plc.wait_for_requests(1));
    const auto requests = plc.requests();
    EXPECT_EQ(to_hex(requests[0]), "00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00");
    setrlimit(RLIMIT_NOFILE, &saved);
}

const Bytes kBig = pattern(4096 + 600), kStale = pattern(600, 3), kSplit = values(pattern(30));

// Stale input is drained, at most 512 bytes, before each request; a reply is
// one receive of at most 4096 bytes; a time-out of 0 only polls.
INSTANTIATE_TEST_SUITE_P(All, ExchangeInput, ::testing::Values(
        Input{"stale_byte", [](FakePlc &p) { p.with_stale(ack(20, 1), {9}).reply(ack(30, 2)); },
              {{1, ack(20, 1)}, {1, ack(30, 2)}}},
        Input{"stale_512_bytes", [](FakePlc &p) { p.with_stale(ack(20, 1), part(kStale, 0, 512)).reply(ack(30, 2)); },
              {{1, ack(20, 1)}, {1, ack(30, 2)}}},
        Input{"stale_600_bytes", [](FakePlc &p) { p.with_stale(ack(20, 1), kStale).silence(); },
              {{1, ack(20, 1)}, {1, part(kStale, 512)}}},
        Input{"over_long_reply", [](FakePlc &p) { p.reply(kBig).silence().silence(); },
              {{1, part(kBig, 0, 4096)}, {0, part(kBig, 4096 + 512)}, {0, std::nullopt}}},
        Input{"two_segments", [](FakePlc &p) { p.split(kSplit, 14, 150ms).reply(ack()); },
              {{1, part(kSplit, 0, 14)}, {1, ack()}}},
        Input{"zero_time_out", [](FakePlc &p) { p.silence(); }, {{0, std::nullopt}}},
        Input{"descriptor_above_1023", [](FakePlc &p) { p.with_stale(ack(16, 7), pattern(40)).reply(ack(18, 8)).silence(); },
              {{1, ack(16, 7)}, {1, ack(18, 8)}, {1, std::nullopt}}, false, 1500},
        Input{"datagram", [](FakePlc &p) { p.reply(catalogue_first()); }, {{1, catalogue_first()}}, true}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace
