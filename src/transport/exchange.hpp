// The exchange as the protocol layers use it: one request, one response into
// a receive area of the size one read of the socket may fill.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "format/frame_limits.hpp"
#include "kplc/records.h"

namespace kplc::transport {

using ReceiveArea = std::array<uint8_t, proto::kReceiveArea>;

// Sends `request` and returns the received bytes (possibly none), or nullopt
// when the exchange failed: the transport has closed the socket, and the link
// flag is cleared here so that the next request starts the link again.
std::optional<std::span<const uint8_t>> exchange(std::span<const uint8_t> request, ReceiveArea &response,
                                                 PLC_DRV_INIT_SETTINGS *settings) noexcept;

}  // namespace kplc::transport
