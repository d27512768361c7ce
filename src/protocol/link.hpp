// The link to the PLC, in one place: connecting, the program catalogue, the
// flag that says the link is up, the sequence counters of both paths and the
// area stale input is drained into. The read path, the write dispatch and the
// write entry start the link here; every exchange of either path goes through
// here, so that a failed exchange takes the link down in one place.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>

#include "kplc/records.h"
#include "state/process_state.hpp"
#include "transport/exchange.hpp"

namespace kplc::link {

// Connects to the endpoint of the instance initialised last: 0 when
// connected, -1 otherwise (after the transport's own messages).
int connect(PLC_DRV_INIT_SETTINGS *settings) noexcept;

enum class Catalogue { Loaded, ExchangeFailed, Refused };

// Asks for the program catalogue on the open socket and keeps it.
// ExchangeFailed: the socket is closed and the link is down; Refused: an
// answer was too short, the socket stays open. The catalogue changes only
// when a long enough answer arrived.
Catalogue load_catalogue(PLC_DRV_INIT_SETTINGS *settings) noexcept;

// The whole start-up: connect, load the catalogue, mark the link up. Returns
// ER_OK, or ER_TIMEOUT after printing "zel_plc_read init fail\r" (connect
// failed) or "xplc_getlocalMSG fail\r" (catalogue failed; the link stays down
// and no socket stays open). It does not look at the flag itself.
unsigned start(PLC_DRV_INIT_SETTINGS *settings) noexcept;

// start() when the link is down (the read path, before any request).
inline unsigned ensure_started(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    if (state().link.up) return ER_OK;
    return start(settings);
}

// The write path's start when the link is down: connect only, no catalogue.
// ER_OK, or ER_TIMEOUT after "zel_plc_read init fail\r".
unsigned ensure_connected(PLC_DRV_INIT_SETTINGS *settings) noexcept;

// The small questions below are asked on every call; they are defined here
// so that asking costs no call.
[[nodiscard]] inline bool up() noexcept { return state().link.up; }

// PLC address and port of the instance initialised last (null before any).
[[nodiscard]] inline const PLC_TCP_INIT_PARAMETERS *endpoint() noexcept { return state().link.endpoint; }

// One request and its response. A failure (the transport has closed the
// socket) takes the link down, so that the next request starts it again.
std::optional<std::span<const uint8_t>> exchange(std::span<const uint8_t> request,
                                                 transport::ReceiveArea &response,
                                                 PLC_DRV_INIT_SETTINGS *settings) noexcept;

// Each path numbers its own requests with a 16-bit counter that wraps from
// 65535 to 0; a number is taken only by a request that is sent.
enum class Side { Read, Write };

inline uint16_t &counter_of(Side side) noexcept {
    return side == Side::Read ? state().link.read_sid : state().link.write_sid;
}
// The number the next request takes.
[[nodiscard]] inline uint16_t sequence(Side side) noexcept { return counter_of(side); }
// Takes it and advances the counter.
inline uint16_t take_sequence(Side side) noexcept { return counter_of(side)++; }

// The catalogue as last loaded (program ids and names).
[[nodiscard]] inline std::span<const CatalogueEntry> catalogue() noexcept {
    const LinkState &link = state().link;
    return {link.catalogue.data(), std::min<std::size_t>(link.catalogue_size, kCatalogueCapacity)};
}

// Where stale input is drained before each request.
[[nodiscard]] inline std::span<unsigned char> drain_area() noexcept { return state().link.drain_area; }

// The instance's endpoint becomes the link's; the link is down and the write
// path numbers from 0 again. Nothing is closed or sent.
void reset(PLC_TCP_INIT_PARAMETERS *endpoint) noexcept;

}  // namespace kplc::link
