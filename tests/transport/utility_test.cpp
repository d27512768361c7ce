// The short wait, the hex dump and the close wrapper.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

#include "kplc/kplc.h"

namespace {

using namespace std::chrono_literals;

struct WaitCase {
    int mode;
    uint32_t response_timeout_s;
    uint32_t timeout1_ms;
    bool input_pending;
    int result;
    std::chrono::milliseconds at_least, below;
};

class ShortWait : public ::testing::TestWithParam<WaitCase> {};

TEST_P(ShortWait, WaitsForInputByMode) {
    const WaitCase c = GetParam();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    if (c.input_pending) {
        ASSERT_EQ(write(pair[1], "x", 1), 1);
    }
    PLC_DRV_INIT_SETTINGS settings{};
    settings.serial_handle = pair[0];
    settings.response_timeout = c.response_timeout_s;
    settings.timeout1 = c.timeout1_ms;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(zel_time_set(&settings, c.mode), c.result);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, c.at_least);
    EXPECT_LT(took, c.below);
    close(pair[0]);
    close(pair[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, ShortWait,
    ::testing::Values(WaitCase{0, 1, 0, false, 0, 990ms, 1500ms},     // response time-out in seconds
                      WaitCase{0, 0, 5000, false, 0, 0ms, 1000ms},    // a zero time-out only polls
                      WaitCase{1, 5, 80, false, 0, 79ms, 1000ms},     // timeout1 in milliseconds
                      WaitCase{1, 5, 5000, true, 1, 0ms, 1000ms},     // input ends the wait at once
                      WaitCase{7, 5, 5000, false, 0, 0ms, 1000ms},    // other modes do not wait
                      WaitCase{-1, 5, 5000, true, 1, 0ms, 1000ms}));

TEST(ShortWait, ClosedDescriptorIsAnError) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[0]);
    close(pair[1]);
    PLC_DRV_INIT_SETTINGS settings{};
    settings.serial_handle = pair[0];
    EXPECT_EQ(zel_time_set(&settings, 1), -1);
    EXPECT_EQ(EmptyBuffer(pair[0]), -1);
}

TEST(CloseSocket, ReturnsTheResultOfClose) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    EXPECT_EQ(zel_closesocket(pair[0]), 0);
    EXPECT_EQ(zel_closesocket(pair[0]), -1);
}

std::vector<std::string> dump_lines(int level, void *buffer, int size) {
    testing::internal::CaptureStdout();
    FlushBuff(level, buffer, size);
    const std::string out = testing::internal::GetCapturedStdout();
    std::vector<std::string> lines;
    std::size_t from = 0;
    for (std::size_t at; (at = out.find("\r\n", from)) != std::string::npos; from = at + 2)
        lines.push_back(out.substr(from, at - from));
    EXPECT_EQ(from, out.size()) << "every line ends in \\r\\n";
    return lines;
}

TEST(FlushBuff, PrintsTwentyBytesPerLineHeadedByAddressAndOffset) {
    unsigned char bytes[45];
    for (int i = 0; i < 45; ++i) bytes[i] = static_cast<unsigned char>(0xF0 + i);
    const auto lines = dump_lines(1, bytes, 45);
    ASSERT_EQ(lines.size(), 3u);
    const int offsets[] = {0, 20, 40};
    const int counts[] = {20, 20, 5};
    for (int l = 0; l < 3; ++l) {
        char head[64];
        std::snprintf(head, sizeof head, "%p (%04d) :\t", static_cast<void *>(bytes + offsets[l]), offsets[l]);
        ASSERT_EQ(lines[l].rfind(head, 0), 0u) << lines[l];
        std::istringstream rest(lines[l].substr(std::strlen(head)));
        int n = 0;
        for (unsigned value; rest >> std::hex >> value; ++n) EXPECT_EQ(value, bytes[offsets[l] + n]);
        EXPECT_EQ(n, counts[l]);
    }
    EXPECT_NE(lines[0].find("f0 f1 f2 "), std::string::npos) << "two lower-case digits and a blank per byte";
}

TEST(FlushBuff, PrintsNothingAtLevelZeroOrWithoutABuffer) {
    unsigned char bytes[4] = {1, 2, 3, 4};
    testing::internal::CaptureStdout();
    FlushBuff(0, bytes, 4);
    FlushBuff(1, nullptr, 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
