// The timed exchange against the fake PLC over loopback.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>

#include "state/process_state.hpp"
#include "transport/support.hpp"
#include "testkit/alloc_counter.hpp"
#include "transport/syscall_probe.hpp"

namespace {

using kplc::testkit::Bytes;
using kplc::testkit::FakePlc;
using kplc::testkit::hex;
using kplc::testkit::to_hex;
using kplc::transport_test::Link;
using kplc::transport_test::request_frame;
using namespace std::chrono_literals;

Bytes pattern(std::size_t n, uint8_t seed = 0) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

// Runs one exchange with standard output captured.
int quiet_exchange(Link &link, const Bytes &request, Bytes &response, std::string &printed) {
    testing::internal::CaptureStdout();
    const int rc = link.exchange(request, response);
    printed = testing::internal::GetCapturedStdout();
    return rc;
}

TEST(Exchange, SendsTheRequestAndReturnsTheResponse) {
    FakePlc plc;
    const Bytes answer = kplc::testkit::values(hex("12 34 56 78"));
    plc.reply(answer);
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);

    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(5), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(answer));
    ASSERT_EQ(plc.requests().size(), 1u);
    EXPECT_EQ(to_hex(plc.requests()[0]), "00 00 00 06 FF FF FF F9 00 05 0C 2C 00 00 00 00");
}

// No answer within the response time-out: "--timeout--", socket closed. A
// time-out of 0 only polls: it fails at once.
TEST(Exchange, TimeOutClosesTheSocket) {
    for (const uint32_t timeout_s : {1u, 0u}) {
        SCOPED_TRACE(timeout_s);
        FakePlc plc;
        plc.silence();
        Link link(plc.port(), timeout_s);
        ASSERT_EQ(link.connect(), 0);
        const auto start = std::chrono::steady_clock::now();
        Bytes response;
        std::string printed;
        EXPECT_EQ(quiet_exchange(link, request_frame(0), response, printed), -1);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(printed, "--timeout--\r\n");
        EXPECT_FALSE(Link::is_open(link.settings.serial_handle));
        EXPECT_GE(took, std::chrono::seconds(timeout_s) - 50ms);
        EXPECT_LT(took, std::chrono::seconds(timeout_s) + 500ms);
    }
}

// With a time-out of 0 the exchange still succeeds when input is already
// queued: here the tail of an earlier response that the drain (512 bytes)
// did not take.
TEST(Exchange, ZeroTimeOutTakesInputAlreadyQueued) {
    FakePlc plc;
    const Bytes big = pattern(4096 + 600);
    plc.reply(big).silence();
    Link link(plc.port(), 0);
    ASSERT_EQ(link.connect(), 0);
    link.settings.response_timeout = 1;
    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(0), response), 0);
    link.settings.response_timeout = 0;
    ASSERT_EQ(link.exchange(request_frame(1), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(std::span<const uint8_t>(big).subspan(4096 + 512)));
}

// The PLC closing the connection gives an empty response and leaves the
// socket open. The next request draws a reset from the PLC's side, but a read
// reports the end of the stream before that error, so that exchange may come
// back empty once more; the send after it fails and closes the socket.
TEST(Exchange, PeerCloseGivesAnEmptyResponseThenTheLinkFails) {
    FakePlc plc;
    plc.close();
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    Bytes response{1};
    EXPECT_EQ(link.exchange(request_frame(0), response), 0);
    EXPECT_TRUE(response.empty());
    EXPECT_TRUE(Link::is_open(link.settings.serial_handle));

    int rc = 0;
    int attempts = 0;
    std::string printed;
    while (rc == 0 && attempts < 2) {
        ++attempts;
        rc = quiet_exchange(link, request_frame(1), response, printed);
        if (rc == 0) {
            EXPECT_TRUE(response.empty());
        }
    }
    EXPECT_EQ(rc, -1);
    EXPECT_FALSE(Link::is_open(link.settings.serial_handle));
}

// A send on a connection the peer has reset fails with "send error" and must
// not raise SIGPIPE (this test program would die of it).
TEST(Exchange, SendOnAResetConnectionFailsWithoutASignal) {
    FakePlc plc;
    plc.close();
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(0), response), 0);  // the fake closes
    const Bytes frame = request_frame(1);
    testing::internal::CaptureStdout();
    int rc = 0;
    for (int i = 0; i < 3 && rc >= 0; ++i) rc = send_e(frame.data(), static_cast<int>(frame.size()), &link.settings);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(printed, "send error\n");
    EXPECT_FALSE(Link::is_open(link.settings.serial_handle));
}

// Stale input is drained before the request, at most 512 bytes per exchange.
struct StaleCase {
    std::size_t stale;
    bool plc_answers_second;
    std::size_t second_gets;  // bytes the second exchange returns
    bool second_is_answer;
};

class StaleInput : public ::testing::TestWithParam<StaleCase> {};

TEST_P(StaleInput, IsDrainedBeforeTheNextRequest) {
    const StaleCase c = GetParam();
    const Bytes first = kplc::testkit::ack(20, 1);
    const Bytes stale = pattern(c.stale, 3);
    const Bytes second = kplc::testkit::ack(30, 2);
    FakePlc plc;
    plc.with_stale(first, stale);
    if (c.plc_answers_second) {
        plc.reply(second);
    } else {
        plc.silence();
    }

    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(0), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(first));
    ASSERT_TRUE(plc.wait_idle());
    ASSERT_EQ(link.exchange(request_frame(1), response), 0);
    ASSERT_EQ(response.size(), c.second_gets);
    if (c.second_is_answer) {
        EXPECT_EQ(to_hex(response), to_hex(second));
    } else {
        EXPECT_EQ(to_hex(response), to_hex(std::span<const uint8_t>(stale).subspan(512)));
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, StaleInput,
                         ::testing::Values(StaleCase{1, true, 30, true}, StaleCase{512, true, 30, true},
                                           StaleCase{600, false, 88, false}));

TEST(Exchange, LongResponseIsCutAt4096AndTheRestStaysQueued) {
    FakePlc plc;
    const Bytes big = pattern(5000, 1);
    plc.reply(big);
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);

    // The caller's buffer has 4096 bytes; guard bytes behind it must stay untouched.
    std::array<uint8_t, 4096 + 64> area;
    area.fill(0xA5);
    int len = 0;
    Bytes request = request_frame(0);
    ASSERT_EQ(TransRecvSockBuff(request.data(), 16, area.data(), &len, &link.settings), 0);
    ASSERT_EQ(len, 4096);
    EXPECT_TRUE(std::equal(big.begin(), big.begin() + 4096, area.begin()));
    EXPECT_TRUE(std::all_of(area.begin() + 4096, area.end(), [](uint8_t b) { return b == 0xA5; }));

    const int fd = link.settings.serial_handle;
    EXPECT_EQ(EmptyBuffer(fd), 512);
    EXPECT_EQ(EmptyBuffer(fd), 5000 - 4096 - 512);
    EXPECT_EQ(EmptyBuffer(fd), 0);
    EXPECT_EQ(to_hex(std::span<const uint8_t>(kplc::state().EmptyBuff).first(5000 - 4096 - 512)),
              to_hex(std::span<const uint8_t>(big).subspan(4096 + 512)));
}

TEST(Exchange, ResponseInTwoSegmentsIsCutAtTheFirst) {
    FakePlc plc;
    const Bytes whole = kplc::testkit::values(pattern(30));
    plc.split(whole, 14, 150ms).reply(kplc::testkit::ack());
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(0), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(std::span<const uint8_t>(whole).first(14)));
    // The second segment is stale for the next exchange.
    ASSERT_TRUE(plc.wait_idle());
    ASSERT_EQ(link.exchange(request_frame(1), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(kplc::testkit::ack()));
}

TEST(Exchange, WorksOverADatagramSocket) {
    FakePlc plc(FakePlc::Transport::Udp);
    const Bytes answer = kplc::testkit::catalogue_first();
    plc.reply(answer);
    Link link(plc.port(), 1, /*stream=*/false);
    ASSERT_EQ(link.connect(), 0);
    int type = 0;
    socklen_t tl = sizeof type;
    ASSERT_EQ(getsockopt(link.settings.serial_handle, SOL_SOCKET, SO_TYPE, &type, &tl), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(9), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(answer));
    ASSERT_EQ(plc.requests().size(), 1u);
    EXPECT_EQ(to_hex(plc.requests()[0]), to_hex(request_frame(9)));
}

// Waits use poll(), so a descriptor number above 1023 (out of select()'s
// reach) works for the drain, the response wait and the time-out alike.
TEST(Exchange, WorksOnADescriptorAbove1023) {
    rlimit lim{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    const rlimit saved = lim;
    constexpr int kHigh = 1500;
    if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max <= kHigh) GTEST_SKIP() << "hard descriptor limit too low";
    lim.rlim_cur = kHigh + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);

    FakePlc plc;
    plc.with_stale(kplc::testkit::ack(16, 7), pattern(40)).reply(kplc::testkit::ack(18, 8)).silence();
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    ASSERT_EQ(dup2(link.settings.serial_handle, kHigh), kHigh);
    ::close(link.settings.serial_handle);
    link.settings.serial_handle = kHigh;

    Bytes response;
    ASSERT_EQ(link.exchange(request_frame(0), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(kplc::testkit::ack(16, 7)));
    ASSERT_TRUE(plc.wait_idle());
    ASSERT_EQ(link.exchange(request_frame(1), response), 0);
    EXPECT_EQ(to_hex(response), to_hex(kplc::testkit::ack(18, 8)));
    std::string printed;
    EXPECT_EQ(quiet_exchange(link, request_frame(2), response, printed), -1);
    EXPECT_EQ(printed, "--timeout--\r\n");
    EXPECT_FALSE(Link::is_open(kHigh));
    setrlimit(RLIMIT_NOFILE, &saved);
}

// One exchange: a non-waiting poll, one send, the wait, one read, and no heap
// allocation.
TEST(Exchange, CostsTwoPollsOneSendOneReadAndNoAllocation) {
    FakePlc plc;
    plc.reply(kplc::testkit::ack()).reply(kplc::testkit::ack());
    Link link(plc.port());
    ASSERT_EQ(link.connect(), 0);
    std::array<uint8_t, 4096> area{};
    Bytes request = request_frame(0);
    int len = 0;
    ASSERT_EQ(TransRecvSockBuff(request.data(), 16, area.data(), &len, &link.settings), 0);  // warm-up

    kplc::transport_test::CallCounts counts;
    std::size_t allocations = 0;
    {
        kplc::testkit::AllocCounter heap;
        kplc::transport_test::CallProbe probe;
        const int rc = TransRecvSockBuff(request.data(), 16, area.data(), &len, &link.settings);
        counts = probe.counts();
        allocations = heap.allocations();
        ASSERT_EQ(rc, 0);
    }
    EXPECT_EQ(len, 14);
    EXPECT_EQ(counts.polls, 2u);
    EXPECT_EQ(counts.sends, 1u);
    EXPECT_EQ(counts.reads, 1u);
    if (kplc::testkit::AllocCounter::available()) {
        EXPECT_EQ(allocations, 0u);
    }
}

}  // namespace
