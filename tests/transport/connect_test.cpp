// Opening the socket: address text, interface selection, options, failures.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "transport/address_text.hpp"
#include "transport/support.hpp"

namespace {

using kplc::testkit::FakePlc;
using kplc::transport_test::Link;
using kplc::transport_test::open_descriptors;
using namespace std::chrono_literals;

std::string text_of(const sockaddr_in &a) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

sockaddr_in local_of(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return a;
}

// A loopback port that nothing listens on (connects are refused).
uint16_t closed_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(FakePlc::kLoopback);
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    const uint16_t port = ntohs(local_of(fd).sin_port);
    ::close(fd);
    return port;
}

// A loopback listener whose accept queue is full: the kernel drops further
// connection requests, so a connect to it waits until its own bound passes.
// Nothing leaves the machine.
struct FullListener {
    int listener = -1;
    int filler = -1;
    uint16_t port = 0;
    bool ready = false;

    FullListener() {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(FakePlc::kLoopback);
        ::bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a);
        ::listen(listener, 0);
        a = local_of(listener);
        port = ntohs(a.sin_port);
        filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(filler, reinterpret_cast<sockaddr *>(&a), sizeof a);
        pollfd p{filler, POLLOUT, 0};
        if (::poll(&p, 1, 1000) != 1) return;
        // Confirm that one more connect now hangs on this system.
        const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ::connect(probe, reinterpret_cast<sockaddr *>(&a), sizeof a);
        pollfd q{probe, POLLOUT, 0};
        ready = ::poll(&q, 1, 200) == 0;
        ::close(probe);
    }
    ~FullListener() {
        ::close(filler);
        ::close(listener);
    }
};

std::optional<in_addr> ipv4_of(const char *interface) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return std::nullopt;
    std::optional<in_addr> found;
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next)
        if (i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET && std::strcmp(i->ifa_name, interface) == 0)
            found = reinterpret_cast<sockaddr_in *>(i->ifa_addr)->sin_addr;
    freeifaddrs(list);
    return found;
}

// Runs CommunicationSet with both output streams captured.
struct Attempt {
    int rc;
    std::string out, err;
    std::chrono::milliseconds took;
};
Attempt attempt(Link &link) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    const int rc = CommunicationSet(&link.tcp, &link.settings);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::string err = testing::internal::GetCapturedStderr();
    return {rc, testing::internal::GetCapturedStdout(), std::move(err), took};
}

TEST(AddressText, IsDottedDecimalWithoutLeadingZeros) {
    const std::pair<unsigned, const char *> cases[] = {
        {0xC0A8000A, "192.168.0.10"}, {0x7F000001, "127.0.0.1"}, {0, "0.0.0.0"},
        {0xFFFFFFFF, "255.255.255.255"}, {0x0A090807, "10.9.8.7"}};
    for (const auto &[address, text] : cases) EXPECT_STREQ(kplc::transport::address_text(address).data(), text);
}

struct StreamCase {
    uint8_t selector;
    uint32_t timeout2;
    long send_timeout_s;
};
class StreamConnect : public ::testing::TestWithParam<StreamCase> {};

// Without a selected interface the socket is not bound and connects from the
// loopback address; the send time-out is (timeout2 mod 10) + 3 seconds.
TEST_P(StreamConnect, ConnectsUnboundWithTheSendTimeOut) {
    const StreamCase c = GetParam();
    FakePlc plc;
    Link link(plc.port());
    link.tcp.stop_bits = c.selector;
    link.settings.timeout2 = c.timeout2;
    const Attempt a = attempt(link);
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.out, "no matching relative net\r\n");
    const int fd = link.settings.serial_handle;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    ASSERT_EQ(getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len), 0);
    EXPECT_EQ(text_of(peer), "127.0.0.1:" + std::to_string(plc.port()));
    timeval tv{};
    len = sizeof tv;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, c.send_timeout_s);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "the link must be blocking after the bounded connect";
    int type = 0;
    len = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
    EXPECT_EQ(type, SOCK_STREAM);
}

INSTANTIATE_TEST_SUITE_P(Selectors, StreamConnect,
                         ::testing::Values(StreamCase{0, 0, 3}, StreamCase{4, 7, 10}, StreamCase{255, 13, 6}));

TEST(Connect, DatagramConnectNeedsNoAnswer) {
    Link link(closed_port(), 1, /*stream=*/false);
    const Attempt a = attempt(link);
    ASSERT_EQ(a.rc, 0);
    int type = 0;
    socklen_t len = sizeof type;
    getsockopt(link.settings.serial_handle, SOL_SOCKET, SO_TYPE, &type, &len);
    EXPECT_EQ(type, SOCK_DGRAM);
}

TEST(Connect, BindsToTheSelectedInterface) {
    const auto address = ipv4_of("eth0");
    if (!address) GTEST_SKIP() << "no eth0 with an IPv4 address on this machine";
    FakePlc plc;
    Link link(plc.port());
    link.tcp.stop_bits = 1;
    const Attempt a = attempt(link);
    ASSERT_EQ(a.rc, 0);
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &*address, text, sizeof text);
    EXPECT_EQ(a.out, std::string("ipaddr=") + text + "\r\nmatch eth0 ip success\r\n");
    EXPECT_EQ(local_of(link.settings.serial_handle).sin_addr.s_addr, address->s_addr);
}

TEST(Connect, MissingInterfaceFailsAndLeavesNoSocket) {
    if (if_nametoindex("wlan0") != 0) GTEST_SKIP() << "this machine has a wlan0";
    Link link(closed_port());
    link.tcp.stop_bits = 3;
    link.settings.serial_handle = 77;
    const std::size_t before = open_descriptors();
    const Attempt a = attempt(link);
    EXPECT_EQ(a.rc, -1);
    EXPECT_EQ(a.out, "get ip command error\r\n");
    EXPECT_EQ(link.settings.serial_handle, 77);
    EXPECT_EQ(open_descriptors(), before);
    link.settings.serial_handle = -1;
}

TEST(Connect, RefusedConnectReportsTheAddress) {
    Link link(closed_port());
    link.settings.serial_handle = 77;
    const Attempt a = attempt(link);
    EXPECT_EQ(a.rc, -1);
    EXPECT_EQ(a.out, "no matching relative net\r\nconnect to 127.0.0.1 failed\r\n");
    EXPECT_EQ(link.settings.serial_handle, 77);
    link.settings.serial_handle = -1;
}

// A PLC that never completes the connection: the connect gives up after the
// send time-out of 3 seconds.
TEST(Connect, UnansweredConnectGivesUpAfterTheSendTimeOut) {
    FullListener full;
    if (!full.ready) GTEST_SKIP() << "this system does not hold back connects to a full listener";
    Link link(full.port);
    const std::size_t before = open_descriptors();
    const Attempt a = attempt(link);
    EXPECT_EQ(a.rc, -1);
    EXPECT_EQ(a.out, "no matching relative net\r\nconnect to 127.0.0.1 failed\r\n");
    EXPECT_GE(a.took, 2900ms);
    EXPECT_LT(a.took, 4000ms);
    EXPECT_EQ(open_descriptors(), before);
}

// In a network namespace of its own with the loopback interface down, every
// address is unreachable: the message, then half a second of pause.
TEST(Connect, UnreachableNetworkPausesHalfASecond) {
    Link link(502);
    std::optional<Attempt> a;
    bool isolated = false;
    std::thread worker([&] {
        // Only this thread enters the new namespace; it goes away with the thread.
        if (unshare(CLONE_NEWNET) != 0) return;
        isolated = true;
        a = attempt(link);
    });
    worker.join();
    if (!isolated) GTEST_SKIP() << "cannot create a network namespace here";
    ASSERT_TRUE(a);
    EXPECT_EQ(a->rc, -1);
    EXPECT_EQ(a->out, "no matching relative net\r\nNetwork is unreachable\r\nconnect to 127.0.0.1 failed\r\n");
    EXPECT_GE(a->took, 500ms);
}

TEST(Connect, FailuresLeaveNoDescriptorOpen) {
    Link warmup(closed_port());
    (void)attempt(warmup);  // the resolver's first use may load what it keeps
    const std::size_t before = open_descriptors();
    {
        FakePlc plc;
        for (int i = 0; i < 5; ++i) {
            Link refused(closed_port());
            EXPECT_EQ(attempt(refused).rc, -1);
            Link wrong_interface(closed_port());
            wrong_interface.tcp.stop_bits = 3;
            (void)attempt(wrong_interface);
            Link timed_out(plc.port(), 0);
            ASSERT_EQ(timed_out.connect(), 0);
            kplc::testkit::Bytes response;
            testing::internal::CaptureStdout();
            EXPECT_EQ(timed_out.exchange(kplc::transport_test::request_frame(0), response), -1);
            (void)testing::internal::GetCapturedStdout();
        }
    }
    EXPECT_EQ(open_descriptors(), before);
}

enum class Target { Listening, Refused, Full };
struct QuickCase {
    Target target;
    int rc;
    const char *tail;  // printed after "server ip = 127.0.0.1\r\n"
};
class QuickConnect : public ::testing::TestWithParam<QuickCase> {};

TEST_P(QuickConnect, ConnectsWithin30Milliseconds) {
    const QuickCase c = GetParam();
    FakePlc plc;
    FullListener full;
    uint16_t port = plc.port();
    if (c.target == Target::Refused) port = closed_port();
    if (c.target == Target::Full) {
        if (!full.ready) GTEST_SKIP() << "this system does not hold back connects to a full listener";
        port = full.port;
    }
    PLC_DRV_INIT_SETTINGS settings{};
    settings.serial_handle = 77;
    testing::internal::CaptureStdout();
    const int rc = SetupTCPComm(&settings, FakePlc::kLoopback, port);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(out, std::string("server ip = 127.0.0.1\r\n") + c.tail);
    if (c.rc == 0) {
        EXPECT_EQ(fcntl(settings.serial_handle, F_GETFL) & O_NONBLOCK, 0);
        linger lg{};
        socklen_t len = sizeof lg;
        getsockopt(settings.serial_handle, SOL_SOCKET, SO_LINGER, &lg, &len);
        EXPECT_EQ(lg.l_onoff, 1);
        EXPECT_EQ(lg.l_linger, 0);
        ::close(settings.serial_handle);
    } else {
        EXPECT_EQ(settings.serial_handle, 77);
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, QuickConnect,
                         ::testing::Values(QuickCase{Target::Listening, 0, ""}, QuickCase{Target::Refused, -1, ""},
                                           QuickCase{Target::Full, -1, "select time out \r\n"}));

TEST(Datagram, UnconnectedSocketReachesThePlcThroughSendto) {
    FakePlc plc(FakePlc::Transport::Udp);
    Link link(plc.port(), 1, false);
    sockaddr_in server{};
    ASSERT_EQ(init_udp_comm(&link.tcp, &link.settings, &server), 0);
    EXPECT_EQ(server.sin_family, AF_INET);
    EXPECT_EQ(text_of(server), "127.0.0.1:" + std::to_string(plc.port()));
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    EXPECT_EQ(getpeername(link.settings.serial_handle, reinterpret_cast<sockaddr *>(&peer), &len), -1);
    auto frame = kplc::transport_test::request_frame(3);
    EXPECT_EQ(zel_sendto(link.settings.serial_handle, reinterpret_cast<char *>(frame.data()), 16, 0,
                         reinterpret_cast<sockaddr *>(&server), sizeof server),
              16);
    ASSERT_TRUE(plc.wait_for_requests(1));
    EXPECT_EQ(plc.requests()[0], frame);
}

}  // namespace
