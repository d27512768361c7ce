// The simulator against requests it cannot serve: each is refused with a
// header alone that carries the reason and echoes the sequence number, and
// writes nothing. On the network, a header that does not frame a request ends
// the connection.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "plc.hpp"
#include "testkit/fake_plc.hpp"

namespace {

using namespace kplc::testkit;
namespace sim = kplc::sim;

constexpr const char *kTags = "1,Count,DINT,,4,,DM100,-1\n2,Lines,STRING,[0..2],30,,,-1\n3,Main.Step,UINT,,2,,,3\n";

uint32_t be(const Bytes &b, std::size_t at, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | b.at(at + static_cast<std::size_t>(i));
    return v;
}

TEST(SimRobustness, RequestsItCannotServeAreRefusedWithAHeaderAlone) {
    sim::Plc plc(kTags);
    const auto count = plc.peek(sim::kGlobal, "Count", 4);
    ASSERT_TRUE(count);
    const struct { const char *what, *request; uint16_t status; } cases[] = {
        {"frame without command", "00 00 00 00 FF FF FF FF 00 09", sim::kStatusMalformed},
        {"unknown command", "00 00 00 02 FF FF FF FD 00 09 12 34", sim::kStatusUnknownCommand},
        {"resolve cut inside a name", "00 00 00 0C FF FF FF F3 00 09 0C 28 00 01 00 00 00 01 00 01 00",
         sim::kStatusMalformed},
        {"resolve cut before a name", "00 00 00 0C FF FF FF F3 00 09 0C 28 00 01 00 00 00 02 00 01 00 41",
         sim::kStatusMalformed},
        {"resolve with an unknown scope kind", "00 00 00 08 FF FF FF F7 00 09 0C 28 00 01 05 00 00 00",
         sim::kStatusMalformed},
        {"read cut inside an entry", "00 00 00 10 FF FF FF EF 00 09 1E 09 00 00 01 00 00 00 00 06 00 02 00",
         sim::kStatusMalformed},
        {"read past an area", "00 00 00 10 FF FF FF EF 00 09 1E 09 00 00 01 00 00 00 00 06 00 02 FF FF FF F0",
         sim::kStatusBadLocation},
        {"read of an area without variables",
         "00 00 00 10 FF FF FF EF 00 09 1E 09 00 00 01 00 00 00 00 55 00 01 00 00 00 00", sim::kStatusBadLocation},
        {"read of more words than the area holds",
         "00 00 00 10 FF FF FF EF 00 09 1E 09 00 00 01 00 00 00 00 06 FF FF 00 00 00 00", sim::kStatusBadLocation},
        {"word write with fewer words than counted",
         "00 00 00 10 FF FF FF EF 00 09 1E 01 00 06 00 00 00 02 00 00 00 00 01 02 03", sim::kStatusMalformed},
        {"word write past an area", "00 00 00 0E FF FF FF F1 00 09 1E 01 00 06 00 00 00 01 7F FF FF F0 01 02",
         sim::kStatusBadLocation},
        {"bit write cut", "00 00 00 0C FF FF FF F3 00 09 1E 03 00 01 06 00 00 00 00 01 00", sim::kStatusMalformed},
        {"bit write past an area", "00 00 00 0C FF FF FF F3 00 09 1E 03 00 01 06 FF FF FF FF 01 00 01",
         sim::kStatusBadLocation},
        {"set bit cut", "00 00 00 06 FF FF FF F9 00 09 32 00 01 11 03", sim::kStatusMalformed},
    };
    for (const auto &c : cases) {
        const Bytes reply = plc.handle(hex(c.request));
        ASSERT_EQ(reply.size(), 14u) << c.what;
        EXPECT_EQ(be(reply, 10, 2), c.status) << c.what;
        EXPECT_EQ(be(reply, 8, 2), 9u) << c.what;
        EXPECT_NE(reply[11], 0) << c.what << ": a bit writer must see the failure in byte 11";
    }
    EXPECT_EQ(plc.peek(sim::kGlobal, "Count", 4), count) << "nothing was written by the refused writes";
}

TEST(SimRobustness, AHeaderThatDoesNotFrameClosesTheConnection) {
    for (const char *header : {"00 00 00 06 FF FF FF F8 00 00 0C 2C 00 00 00 00",  // complement off by one
                               "00 02 00 00 FF FD FF FF 00 00 0C 2C"}) {          // 128 KiB announced
        FakePlc plc(FakePlc::Transport::Tcp, kTags);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(plc.port()), .sin_addr = {htonl(0x7F000001)}, .sin_zero = {}};
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        const Bytes bytes = hex(header);
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        timeval tv{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char byte;
        EXPECT_EQ(::recv(fd, &byte, 1, 0), 0) << header;
        ::close(fd);
    }
}

}  // namespace
