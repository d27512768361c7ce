// One writer call's conversation with the PLC: its request and response
// buffers (on the caller's stack, nothing on the heap), the write path's
// sequence numbers and the link's state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "kplc/records.h"
#include "kplc/tags.h"
#include "protocol/frame.hpp"
#include "transport/exchange.hpp"
#include "write/write_frames.hpp"

namespace kplc::write {

enum class Sent {
    Refused,   // the request could not be built; nothing was sent
    LinkLost,  // the exchange failed (socket closed, link down) or the link was already down
    Answered,  // a response arrived; it may be empty
};

class Session {
public:
    explicit Session(PLC_DRV_INIT_SETTINGS *settings) noexcept : settings_(settings) {}
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // The request buffer for the next request.
    std::span<uint8_t> request() noexcept;
    // The sequence number the next request takes.
    [[nodiscard]] uint16_t sequence() const noexcept;

    // Exchanges the first `length` bytes of the request buffer. A length of 0
    // (a request that did not fit) is Refused and does not use up a sequence
    // number. A transport failure takes the link down.
    Sent send(std::size_t length) noexcept;

    // The bytes of the last response.
    [[nodiscard]] std::span<const uint8_t> response() const noexcept { return std::span(response_).first(received_); }

private:
    PLC_DRV_INIT_SETTINGS *settings_;
    // Neither buffer is cleared: every request is written byte by byte from
    // its start up to the length sent, and only the bytes received are read.
    std::array<uint8_t, kRequestSize> request_;
    transport::ReceiveArea response_;
    std::size_t received_ = 0;
};

// The tag record `regid` of a registered table, or null when out of range.
const kplc_tag_str *tag_at(const kplc_plc_tag *table, int regid) noexcept;

// A writer called through its exported name may get any arguments: the tag
// record and the value bytes it needs, or null after a "[PLC]" line.
const kplc_tag_str *writer_tag(const kplc_plc_tag *table, int regid) noexcept;
bool has_value(const PLC_DRV_BUFF *buff) noexcept;

// The value of a BOOL as the write path carries it: the lowest bit of its byte.
inline bool bit_value(uint8_t byte) noexcept { return (byte & 1u) != 0; }

// Outcome of resolving one name.
struct Resolution {
    enum Kind {
        Item,     // the first resolve item was received
        NoItem,   // empty response, or one that ended before the item's location
        Failed,   // refused or link lost: the writer gives up with ER_INVALID
    } kind;
    proto::ResolveItem item;
};

// Word write of `value` (2 * words bytes) to the target; ER_OK when at least
// `min_reply` bytes came back, ER_INVALID otherwise.
unsigned write_words(Session &session, const proto::ResolveItem &target, uint8_t words,
                     std::span<const uint8_t> value, ValueOrder order, std::size_t min_reply) noexcept;

// Exchanges a resolve request of `length` bytes already built in the session's
// request buffer (0: did not fit) and takes the first item of the response.
// `name` is only for diagnostics.
Resolution send_resolve(Session &session, std::size_t length, const char *name) noexcept;

// Resolves the UTF-8 `name` in the scope `mode` (one symbol entry). A name
// longer than 255 code units is refused with a "[PLC]" line.
Resolution resolve_name(Session &session, const char *name, int32_t mode) noexcept;

}  // namespace kplc::write
