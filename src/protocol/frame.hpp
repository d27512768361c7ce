// The driver's frame writer for requests and reader for replies, bounds
// checked; the layouts they write and read come from the wire home.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "format/frame_limits.hpp"
#include "format/wire.hpp"

namespace kplc::proto {

using wire::Command;
using wire::kGlobalScope;
using wire::kLocationEntrySize;
using wire::kLocationHeaderSize;
using wire::kProgramResolveOverhead;

// Writes a request into a caller-owned buffer. Every write first checks that it
// fits; the first one that does not marks the writer failed, and from then on
// nothing more is written and finish() reports the failure. A frame therefore
// never grows past its buffer and is never sent half-built.
class FrameWriter {
public:
    explicit FrameWriter(std::span<uint8_t> buffer) noexcept : buf_(buffer) {}

    // Header with command and sequence number; data_len and its complement are
    // placeholders until finish().
    bool begin(Command command, uint16_t sequence) noexcept;

    bool u8(uint8_t value) noexcept;
    bool u16(uint16_t value) noexcept;
    bool u32(uint32_t value) noexcept;
    bool bytes(std::span<const uint8_t> data) noexcept;
    bool zeros(std::size_t count) noexcept;

    // Scope block: 00 00 for a global name; 01 01 00 P 00 00 00 00 for a name
    // local to program P (the low byte of the mode).
    bool scope(int32_t mode) noexcept;

    // Symbol entry: unit count (u16), then each code unit high byte first.
    bool symbol(std::span<const uint16_t> units) noexcept;

    // Overwrites a u16 written earlier (a count known only at the end).
    bool patch_u16(std::size_t offset, uint16_t value) noexcept;

    // Fills data_len and its complement. Returns the frame length, or 0 when
    // any earlier write did not fit or begin() was never called.
    [[nodiscard]] std::size_t finish() noexcept;

    [[nodiscard]] bool ok() const noexcept { return ok_; }
    [[nodiscard]] std::size_t size() const noexcept { return pos_; }
    [[nodiscard]] std::size_t room() const noexcept { return ok_ ? buf_.size() - pos_ : 0; }
    [[nodiscard]] std::span<const uint8_t> frame() const noexcept { return buf_.first(pos_); }

private:
    bool reserve(std::size_t count) noexcept;

    std::span<uint8_t> buf_;
    std::size_t pos_ = 0;
    bool ok_ = true;
    bool begun_ = false;
};

// Reads a response. Every read first checks that the bytes were received and
// fails (returns false / nullopt, position unchanged) otherwise.
class FrameReader {
public:
    explicit FrameReader(std::span<const uint8_t> data, std::size_t pos = 0) noexcept : data_(data), pos_(pos) {}

    bool u8(uint8_t &out) noexcept;
    bool u16(uint16_t &out) noexcept;
    bool skip(std::size_t count) noexcept;
    // The next `count` bytes, consumed.
    std::optional<std::span<const uint8_t>> take(std::size_t count) noexcept {
        if (!has(count)) return std::nullopt;
        auto out = data_.subspan(pos_, count);
        pos_ += count;
        return out;
    }

    [[nodiscard]] bool has(std::size_t count) const noexcept { return pos_ <= data_.size() && data_.size() - pos_ >= count; }
    [[nodiscard]] std::size_t pos() const noexcept { return pos_; }
    [[nodiscard]] std::size_t remaining() const noexcept { return pos_ <= data_.size() ? data_.size() - pos_ : 0; }

private:
    std::span<const uint8_t> data_;
    std::size_t pos_;
};

using wire::byte_at;
using wire::ResolveCursor;
using wire::ResolveItem;

// Converts a UTF-8 name (zero-terminated, at most `utf8.size()` bytes read)
// into code units. Returns the unit count, or nullopt when the name needs more
// than kMaxNameUnits units: the driver refuses such a name rather than send a
// different, cut one.
std::optional<std::size_t> name_units(const char *utf8, std::array<uint16_t, kMaxNameUnits + 1> &units) noexcept;

// The two fixed 16-byte catalogue requests (sequence numbers 0 and 1).
std::size_t build_catalogue_request(std::span<uint8_t> out, Command command, uint16_t sequence) noexcept;

}  // namespace kplc::proto
