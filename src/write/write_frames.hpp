// The requests of the write path, built on FrameWriter as pure functions of
// their inputs (no state, no I/O), so that every byte can be checked alone.
//
// A write is always a symbol resolve request (names -> PLC locations) followed
// by one of: a word write (0x1E01), a word-area bit write with mask (0x1E03), a
// set/reset bit command (0x3200 / 0x3300), or, for a read-modify-write, a read
// of one word by location (0x1E09) and then a word write.
//
// Every builder returns the frame length, or 0 when the request does not fit
// its buffer or its arguments cannot be encoded; a 0 is never sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "protocol/frame.hpp"

namespace kplc::write {

// Requests of the write path are built in buffers of this size.
using proto::kRequestSize;
// The symbol count and the word count of a write travel in one byte each.
using proto::kMaxNamesPerResolve;
using proto::kMaxWordsPerWrite;
// A bit number addresses one bit of a 16-bit word.
inline constexpr uint8_t kMaxBitNumber = 15;

// A symbol resolve request with one or more names sharing one scope:
//   header(0C28) | 00 01 | scope block | symbol count (u16) | symbol entries
// Names are added one at a time so that a run of array elements can be named
// without holding all names at once.
class ResolveRequest {
public:
    ResolveRequest(std::span<uint8_t> out, uint16_t sequence, int32_t mode) noexcept;

    // Appends one symbol entry; false when it does not fit the buffer or the
    // request already holds kMaxNamesPerResolve names.
    bool add(std::span<const uint16_t> units) noexcept;
    // Patches the symbol count and fills the header; 0 when any name was
    // refused (a request is never sent short of a name). A request of no
    // names goes out: it is how a run of no elements is written.
    [[nodiscard]] std::size_t finish() noexcept;

private:
    proto::FrameWriter w_;
    std::size_t count_offset_ = 0;
    std::size_t names_ = 0;
    bool refused_ = false;
};

// One resolve request for a single name.
std::size_t build_resolve(std::span<uint8_t> out, uint16_t sequence, int32_t mode,
                          std::span<const uint16_t> units) noexcept;

// How the value bytes of a word write are taken from the caller's buffer.
enum class ValueOrder {
    // Numbers as the panel holds them: little-endian, least significant word
    // first. Each 16-bit word goes out high byte first, so every byte pair is
    // swapped (bytes 1, 0, 3, 2, ...).
    PanelWords,
    // Text, or a word already in wire order: the bytes go out as they are.
    Wire,
};

// Word write: header(1E01) | 00 | area | word count (u32) | location | words.
// `value` must hold exactly 2 * words bytes.
std::size_t build_word_write(std::span<uint8_t> out, uint16_t sequence, const proto::ResolveItem &target,
                             uint8_t words, std::span<const uint8_t> value, ValueOrder order) noexcept;

// Word-area bit write: header(1E03) | 00 01 | area | location | value | mask.
// The mask is the word with only bit `bit` set when writing 1, its complement
// within 16 bits when writing 0. A bit number above 15 is refused.
std::size_t build_bit_write(std::span<uint8_t> out, uint16_t sequence, const proto::ResolveItem &target, bool value,
                            uint8_t bit) noexcept;

// Set bit (3200) or reset bit (3300) on a bit device area:
//   header | 01 | device class | last two bytes of the location.
std::size_t build_set_reset(std::span<uint8_t> out, uint16_t sequence, const proto::ResolveItem &target,
                            uint8_t device_class, bool value) noexcept;

// Read by location of the one word at the target (the read half of a
// read-modify-write): header(1E09) | 00 | 00 01 | 00 00 00 | 00 area 00 01 location.
std::size_t build_read_word(std::span<uint8_t> out, uint16_t sequence, const proto::ResolveItem &target) noexcept;

}  // namespace kplc::write
