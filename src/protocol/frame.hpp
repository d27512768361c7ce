// The wire format in one place: a bounds-checked frame writer for requests, a
// bounds-checked reader for responses, and the cursor over resolve items.
//
// Every integer on the wire is big-endian. A request is
//   data_len (u32) | complement of data_len (4 bytes) | sequence (u16) | command (u16) | body
// where data_len counts the bytes after the sequence number (frame length - 10).
// Responses carry their data from offset 14; the driver does not look at bytes
// 0-13 of a response.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "format/frame_limits.hpp"

namespace kplc::proto {

enum class Command : uint16_t {
    FirstCatalogue = 0x0C2C,
    ProgramCatalogue = 0x0C25,
    SymbolResolve = 0x0C28,
    ReadByLocation = 0x1E09,
    WordWrite = 0x1E01,
    WordAreaBitWrite = 0x1E03,
    SetBit = 0x3200,
    ResetBit = 0x3300,
};

// Scope of a global name; any other mode is a program id.
inline constexpr int32_t kGlobalScope = -1;

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

// Byte `offset` of a response, when it was received.
inline std::optional<uint8_t> byte_at(std::span<const uint8_t> data, std::size_t offset) noexcept {
    if (offset < data.size()) return data[offset];
    return std::nullopt;
}

// The fields of one resolve item that the driver uses.
struct ResolveItem {
    uint8_t area;                      // area code (item byte 21)
    std::array<uint8_t, 4> location;   // location (item bytes 22-25), copied unchanged
};

// Walks the items of a symbol resolve response. Item k starts where item k-1
// started plus 24 + 4 * (its extension count at byte 40). Only bytes that were
// received are read: an item whose bytes were not all delivered is absent.
class ResolveCursor {
public:
    // Item bytes the driver reads: area code and location end at 25.
    static constexpr std::size_t kAreaOffset = 21;
    static constexpr std::size_t kLocationOffset = 22;
    static constexpr std::size_t kExtensionCountOffset = 40;

    explicit ResolveCursor(std::span<const uint8_t> response) noexcept : resp_(response) {}

    // Area code and location of the current item, if received.
    [[nodiscard]] std::optional<ResolveItem> item() const noexcept {
        const std::size_t end = base_ + kLocationOffset + 4;
        if (end > resp_.size() || end < base_) return std::nullopt;
        return ResolveItem{resp_[base_ + kAreaOffset],
                           {resp_[base_ + kLocationOffset], resp_[base_ + kLocationOffset + 1],
                            resp_[base_ + kLocationOffset + 2], resp_[base_ + kLocationOffset + 3]}};
    }
    // Byte `offset` of the current item, if received.
    [[nodiscard]] std::optional<uint8_t> at(std::size_t offset) const noexcept { return byte_at(resp_, base_ + offset); }
    // Moves to the next item; false when the extension count was not received.
    bool advance() noexcept {
        const auto count = at(kExtensionCountOffset);
        if (!count) return false;
        base_ += 24 + 4 * static_cast<std::size_t>(*count);
        return true;
    }
    [[nodiscard]] std::size_t position() const noexcept { return base_; }

private:
    std::span<const uint8_t> resp_;
    std::size_t base_ = 0;
};

// Converts a UTF-8 name (zero-terminated, at most `utf8.size()` bytes read)
// into code units. Returns the unit count, or nullopt when the name needs more
// than kMaxNameUnits units: the driver refuses such a name rather than send a
// different, cut one.
std::optional<std::size_t> name_units(const char *utf8, std::array<uint16_t, kMaxNameUnits + 1> &units) noexcept;

// The two fixed 16-byte catalogue requests (sequence numbers 0 and 1).
std::size_t build_catalogue_request(std::span<uint8_t> out, Command command, uint16_t sequence) noexcept;

}  // namespace kplc::proto
