// Helpers shared by the transport tests: a socket connected to a fake PLC
// through CommunicationSet, and small probes of descriptors.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "kplc/kplc.h"
#include "testkit/fake_plc.hpp"

namespace kplc::transport_test {

// Connection settings and endpoint for one link to 127.0.0.1:port.
struct Link {
    PLC_TCP_INIT_PARAMETERS tcp{};
    PLC_DRV_INIT_SETTINGS settings{};

    explicit Link(uint16_t port, uint32_t response_timeout_s = 1, bool stream = true) {
        tcp.ipaddr = static_cast<int>(testkit::FakePlc::kLoopback);
        tcp.port = static_cast<int16_t>(port);
        tcp.mode = stream ? 'U' : 0;
        settings.serial_handle = -1;
        settings.response_timeout = response_timeout_s;
        settings.timeout1 = 50;
    }
    ~Link() {
        if (settings.serial_handle >= 0 && is_open(settings.serial_handle)) ::close(settings.serial_handle);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    int connect() {
        testing::internal::CaptureStdout();
        const int rc = CommunicationSet(&tcp, &settings);
        (void)testing::internal::GetCapturedStdout();
        return rc;
    }

    // One exchange; the response lands in `response` (resized to what arrived).
    int exchange(const testkit::Bytes &request, testkit::Bytes &response) {
        response.assign(4096, 0);
        int len = -1;
        const int rc = TransRecvSockBuff(const_cast<uint8_t *>(request.data()), static_cast<int>(request.size()),
                                         response.data(), &len, &settings);
        response.resize(rc == 0 ? static_cast<std::size_t>(len) : 0);
        return rc;
    }

    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }
};

inline std::size_t open_descriptors() {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

// A 16-byte request frame with the given sequence number (a catalogue request).
inline testkit::Bytes request_frame(uint8_t seq) {
    testkit::Bytes frame = testkit::hex("00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00");
    frame[9] = seq;
    return frame;
}

}  // namespace kplc::transport_test
