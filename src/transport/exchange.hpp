// The timed request/response exchange on the link's socket. It keeps no state
// of its own: the caller hands in the area stale input is drained into, and
// learns of a failure from the result (the socket is closed by then).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "format/frame_limits.hpp"
#include "kplc/records.h"

namespace kplc::transport {

using ReceiveArea = std::array<uint8_t, proto::kReceiveArea>;

// Reads once, without waiting, whatever input is pending into `area`:
// the byte count, 0 when nothing is pending, -1 when the wait failed.
int drain(int sock, std::span<unsigned char> area) noexcept;

// Drains, then sends `len` bytes on the settings' socket. Returns the bytes
// sent, or -1 after printing "send error" and closing the socket.
int send_request(const void *msg, int len, PLC_DRV_INIT_SETTINGS *settings,
                 std::span<unsigned char> drain_area) noexcept;

// Sends the request and takes one read (up to the receive area's size) as
// its response, waiting at most the response time-out. 0 with *recv_len set,
// or -1 after closing the socket (with "--timeout--\r" or "--err--\r" when
// the wait ended so).
int send_and_receive(const void *send_data, int send_len, void *recv_data, int *recv_len,
                     PLC_DRV_INIT_SETTINGS *settings, std::span<unsigned char> drain_area) noexcept;

// Waits for input on the settings' socket: mode 0 the response time-out
// (seconds), mode 1 timeout1 (milliseconds), any other mode not at all.
// 1 ready, 0 time-out, -1 the wait failed.
int wait_for_input(PLC_DRV_INIT_SETTINGS *settings, int mode) noexcept;

// Sends `request` and returns the received bytes (possibly none), or nullopt
// when the exchange failed and the socket is closed.
std::optional<std::span<const uint8_t>> exchange(std::span<const uint8_t> request, ReceiveArea &response,
                                                 PLC_DRV_INIT_SETTINGS *settings,
                                                 std::span<unsigned char> drain_area) noexcept;

}  // namespace kplc::transport
