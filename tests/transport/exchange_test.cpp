// The timed exchange against the fake PLC over loopback.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <numeric>

#include "interface/state.hpp"
#include "transport/support.hpp"

namespace {

using kplc::testkit::Bytes;
using kplc::testkit::FakePlc;
using kplc::testkit::hex;
using kplc::testkit::to_hex;
using kplc::transport_test::Link;
using kplc::transport_test::request_frame;

[[maybe_unused]] Bytes pattern(std::size_t n, uint8_t seed = 0) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
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

}  // namespace
