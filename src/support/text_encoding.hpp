// UTF-8 <-> UTF-16 conversion used by the request builders (names go to the
// PLC as UTF-16) and by the catalogue parser (program names come back as
// big-endian UTF-16). No surrogate pairs are formed or combined: every 16-bit
// unit stands for itself in both directions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kplc {

// Decodes the one UTF-8 sequence at `in` (zero-terminated text). The lead byte
// alone selects the length (1 to 6); following bytes contribute their low six
// bits without a continuation-byte check. Returns the length and stores the
// value, or returns 0 without storing when a 0 byte (the terminator) turns up
// among the bytes the lead announces: nothing past the terminator is read.
int utf8_decode_one(const unsigned char *in, uint32_t &value) noexcept;

// Converts big-endian UTF-16 (`in.size() / 2` units; an odd last byte is
// ignored) to UTF-8 in `out`. Stops at a character boundary so that the
// encoded text and its terminator fit `out`, and always terminates when `out`
// has room for at least the terminator. A unit 0 is written as a 0 byte
// inside the text. Returns the number of bytes written before the terminator.
std::size_t utf16be_to_utf8(std::span<const uint8_t> in, std::span<char> out) noexcept;

// One UTF-8 character's value into *unicode: its length, or 0 (nothing
// stored) for a missing pointer or a sequence cut by the terminator.
int utf8_char_value(const unsigned char *ch, int *unicode) noexcept;

// A zero-terminated UTF-8 text as 16-bit units (low 16 bits of each code
// point) into a buffer of `size` units, terminated. Returns the characters
// converted; a count of `size` or more means the text was cut.
int utf8_to_units(const unsigned char *utf8, unsigned short *units, int size) noexcept;

// `len` bytes of big-endian units as zero-terminated UTF-8 into a buffer of
// 3 bytes per unit plus the terminator.
void units_to_utf8(const unsigned char *units, int len, unsigned char *utf8) noexcept;

// Bytes that the UTF-8 form of one 16-bit unit takes (1 to 3).
constexpr std::size_t utf8_length_of_unit(uint16_t unit) noexcept {
    return unit <= 0x7F ? 1 : unit <= 0x7FF ? 2 : 3;
}

}  // namespace kplc
