// The bodies of the wire: symbol resolve requests and their items, read by
// location requests and their entries, program catalogue entries, and the
// constant bytes of the write requests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "format/wire_frame.hpp"

namespace kplc::wire {

// ---- Symbol resolve request -------------------------------------------------
//   12 u16  00 01
//   14      scope block: 00 00 for global names; 01 01 00 P 00 00 00 00 for
//           the names local to program P
//   then    u16 symbol count, then the symbol entries: u16 n, n UTF-16 code
//           units high byte first, no terminator
inline constexpr uint16_t kResolveMarker = 0x0001;
inline constexpr std::size_t kScopeOffset = kHeaderSize + 2;
inline constexpr std::size_t kGlobalScopeBlock = 2;
inline constexpr std::size_t kProgramScopeBlock = 8;
inline constexpr uint8_t kProgramScopeKind = 0x01;
// Byte of a program scope block that holds the program id.
inline constexpr std::size_t kScopeProgramByte = 3;
// Scope of a global name; any other mode is a program id.
inline constexpr int32_t kGlobalScope = -1;
// The fixed part of a resolve request with a program scope block.
inline constexpr std::size_t kProgramResolveOverhead = kScopeOffset + kProgramScopeBlock + 2;

// The scope and symbol entries of a resolve request, read within its bytes.
class SymbolCursor {
public:
    explicit SymbolCursor(std::span<const uint8_t> request) noexcept : req_(request) {
        const auto kind = byte_at(req_, kScopeOffset);
        if (!kind || (*kind != 0 && *kind != kProgramScopeKind)) return;
        const bool program = *kind == kProgramScopeKind;
        if (program) {
            const auto id = byte_at(req_, kScopeOffset + kScopeProgramByte);
            if (!id) return;
            scope_ = *id;
        }
        at_ = kScopeOffset + (program ? kProgramScopeBlock : kGlobalScopeBlock);
        const auto count = u16_at(req_, at_);
        if (!count) return;
        count_ = *count;
        at_ += 2;
        valid_ = true;
    }
    // False when the request ends before its symbol count.
    [[nodiscard]] bool valid() const noexcept { return valid_; }
    [[nodiscard]] int32_t scope() const noexcept { return scope_; }
    [[nodiscard]] uint16_t count() const noexcept { return count_; }
    // The code units (2 bytes each) of the next symbol; nullopt after the last
    // or when the request ends inside an entry.
    std::optional<std::span<const uint8_t>> next() noexcept {
        if (!valid_ || taken_ == count_) return std::nullopt;
        const auto units = u16_at(req_, at_);
        if (!units || req_.size() - at_ - 2 < 2 * std::size_t{*units}) return std::nullopt;
        const auto out = req_.subspan(at_ + 2, 2 * std::size_t{*units});
        at_ += 2 + out.size();
        ++taken_;
        return out;
    }
    [[nodiscard]] std::size_t position() const noexcept { return at_; }

private:
    std::span<const uint8_t> req_;
    std::size_t at_ = 0;
    int32_t scope_ = kGlobalScope;
    uint16_t count_ = 0;
    uint16_t taken_ = 0;
    bool valid_ = false;
};

// ---- Symbol resolve reply: the resolve items ----------------------------------
// The reply carries 00 and the item count (u16) at 14-16, then one item per
// name in request order. Item k's fields sit at fixed distances from a cursor
// c that starts at 0 and moves by 24 + 4 * g after an item (g: its extension
// count), so the first item's bytes begin at 17:
//   c+17 u16 type code      c+19 u16 element bytes   c+21 u8 area code
//   c+22 u32 location (for most bit areas its low 4 bits are a BOOL's bit number)
//   c+29 u16 bit number of a BOOL in a word area (c+30 alone: its low byte)
//   c+40 u8  extension count g, then g signed 32-bit subscripts of the name
inline constexpr std::size_t kItemCountOffset = kReplyDataOffset + 1;
inline constexpr std::size_t kItemStart = kItemCountOffset + 2;
inline constexpr std::size_t kItemType = kItemStart;
inline constexpr std::size_t kItemElementBytes = kItemType + 2;
inline constexpr std::size_t kItemArea = kItemElementBytes + 2;
inline constexpr std::size_t kItemLocation = kItemArea + 1;
inline constexpr std::size_t kItemLocationSize = 4;
inline constexpr std::size_t kItemLocationLast = kItemLocation + kItemLocationSize - 1;
inline constexpr std::size_t kItemBitNumber = kItemLocation + kItemLocationSize + 3 + 1;
inline constexpr std::size_t kItemBitNumberHigh = kItemBitNumber - 1;
inline constexpr std::size_t kItemExtensionCount = kItemBitNumber + 10;
inline constexpr std::size_t kItemSubscripts = kItemExtensionCount + 1;
inline constexpr std::size_t kItemStride = kItemSubscripts - kItemStart;
inline constexpr std::size_t kItemExtensionSize = 4;
// Reply bytes the shortest usable resolve reply holds: up to the first
// item's location.
inline constexpr std::size_t kItemUsable = kItemLocation + kItemLocationSize;
static_assert(kItemArea == 21 && kItemBitNumber == 30 && kItemExtensionCount == 40 && kItemStride == 24);

// Bytes of an item with `extensions` extensions. The PLC gives a name one
// extension per subscript it carries ("Grid[#1,#2]": two).
constexpr std::size_t item_bytes(std::size_t extensions) noexcept { return kItemStride + kItemExtensionSize * extensions; }

// The fields of one resolve item that a request built from it needs.
struct ResolveItem {
    uint8_t area;                                   // area code
    std::array<uint8_t, kItemLocationSize> location;  // copied unchanged
};

// Walks the items of a symbol resolve reply. Only bytes that were received
// are read: an item whose bytes were not all delivered is absent.
class ResolveCursor {
public:
    explicit ResolveCursor(std::span<const uint8_t> reply) noexcept : reply_(reply) {}

    // Whether the reply holds the current item's bytes up to (not including)
    // `end`, a kItem* offset past the last byte wanted.
    // (No overflow: the cursor moves only from a received byte, by at most
    // item_bytes(255), so it stays within a few KiB of the reply's end.)
    [[nodiscard]] bool holds(std::size_t end) const noexcept { return base_ + end <= reply_.size(); }
    // The current item's bytes, at the kItem* offsets; only those `holds` vouches for may be read.
    [[nodiscard]] const uint8_t *bytes() const noexcept { return reply_.data() + base_; }

    // Area code and location of the current item, if received.
    [[nodiscard]] std::optional<ResolveItem> item() const noexcept {
        if (!holds(kItemUsable)) return std::nullopt;
        const uint8_t *at = bytes();
        return ResolveItem{at[kItemArea], {at[kItemLocation], at[kItemLocation + 1], at[kItemLocation + 2],
                                           at[kItemLocation + 3]}};
    }
    // Byte `field` (a kItem* offset) of the current item, if received.
    [[nodiscard]] std::optional<uint8_t> at(std::size_t field) const noexcept {
        if (!holds(field + 1)) return std::nullopt;
        return bytes()[field];
    }
    // Whether the current item was received up to its extension count.
    [[nodiscard]] bool whole() const noexcept { return holds(kItemExtensionCount + 1); }
    // Moves to the next item; false when the extension count was not received.
    bool advance() noexcept {
        if (!whole()) return false;
        base_ += item_bytes(bytes()[kItemExtensionCount]);
        return true;
    }
    [[nodiscard]] std::size_t position() const noexcept { return base_; }

private:
    std::span<const uint8_t> reply_;
    std::size_t base_ = 0;
};

// ---- Read by location request -------------------------------------------------
//   12 00, 13 u16 N, 15 00 00 00, 18 N location entries of 8 bytes:
//   00, area code, 00, word count, location (4 bytes)
// The reply carries every entry's words back to back from its data offset.
inline constexpr std::size_t kEntryCountOffset = kHeaderSize + 1;
inline constexpr std::size_t kLocationHeaderSize = kEntryCountOffset + 2 + 3;
inline constexpr std::size_t kLocationEntrySize = 8;
inline constexpr std::size_t kEntryArea = 1;
inline constexpr std::size_t kEntryWords = 3;
inline constexpr std::size_t kEntryLocation = 4;
// The low nibble of a location's last byte: a BOOL's bit number in a bit area.
inline constexpr std::size_t kEntryLocationLast = kEntryLocation + kItemLocationSize - 1;

struct LocationEntry {
    uint8_t area;
    uint8_t words;
    uint32_t location;
};

// Location entry k of a read by location request, if received.
constexpr std::optional<LocationEntry> location_entry(std::span<const uint8_t> request, std::size_t k) noexcept {
    const std::size_t at = kLocationHeaderSize + kLocationEntrySize * k;
    if (at > request.size() || request.size() - at < kLocationEntrySize) return std::nullopt;
    return LocationEntry{request[at + kEntryArea], request[at + kEntryWords], be32(request, at + kEntryLocation)};
}

// The entry count N of a read by location request, if received.
constexpr std::optional<uint16_t> location_count(std::span<const uint8_t> request) noexcept {
    return u16_at(request, kEntryCountOffset);
}

// ---- Program catalogue reply --------------------------------------------------
//   14 u8 entry count; from 15, per entry at s: u16 entry number, u8 L (name
//   bytes + 2), u8 0, u8 program id, the name as UTF-16 high byte first (L - 2
//   bytes), u8 0. The next entry starts at s + L + 4 (s + 6 when L < 2).
inline constexpr std::size_t kCatalogueCountOffset = kReplyDataOffset;
inline constexpr std::size_t kCatalogueEntriesOffset = kCatalogueCountOffset + 1;
inline constexpr std::size_t kCatalogueEntryLead = 2;  // the entry number
inline constexpr std::size_t kCatalogueEntryGap = 1;   // between L and the id
inline constexpr std::size_t kCatalogueEntryTail = 1;  // after the name
inline constexpr uint8_t kCatalogueLengthBias = 2;     // L counts the name bytes plus these
// The longest name an entry's one-byte L can announce, in code units.
inline constexpr std::size_t kCatalogueMaxNameUnits = (0xFF - kCatalogueLengthBias) / 2;
// The two catalogue requests carry this many zero bytes as their body.
inline constexpr std::size_t kCatalogueRequestBody = 4;
inline constexpr uint16_t kFirstCatalogueSequence = 0;
inline constexpr uint16_t kProgramCatalogueSequence = 1;

// ---- Write request bodies -----------------------------------------------------
// word write:          00, area, u32 word count, location, the words
// word-area bit write: 00 01, area, location, value (00/01), u16 mask
// set bit / reset bit: 01, device class, the location's last two bytes
inline constexpr uint16_t kBitWriteMarker = 0x0001;
inline constexpr uint8_t kSetResetMarker = 0x01;

}  // namespace kplc::wire
