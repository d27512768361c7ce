// The geometry of a tag as the driver addresses it: its dimensions, the
// row-major index of an element, the size of one element in the runtime's
// value buffer and on the wire, and the length of an element's formed name.
//
// The runtime addresses a stretch of a tag in its own units: bits for BOOL,
// bytes for the 8/16/32/64-bit types (element index times width), characters
// of the string elements laid end to end without their terminators for strings.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "format/types.hpp"
#include "kplc/tags.h"

namespace kplc::format {

// ---- Dimensions ----------------------------------------------------------------

// Array dimensions of a numeric or BOOL tag, by its shape.
constexpr unsigned shape_dimensions(var_attr attr) noexcept {
    switch (attr) {
        case ARRAY: return 1;
        case ARRAY2: return 2;
        case ARRAY3: return 3;
        default: return 0;
    }
}

// Array dimensions of a string tag: by which upper bounds are non-zero, not by
// its shape (a string array declared [0..0] has ar_max 0 and is a single string).
constexpr unsigned string_dimensions(const kplc_tag_str &tag) noexcept {
    return tag.ar2_max != 0 ? 3 : tag.ar1_max != 0 ? 2 : tag.ar_max != 0 ? 1 : 0;
}

// Dimensions by which the driver names a tag's elements.
constexpr unsigned dimensions(const kplc_tag_str &tag) noexcept {
    return tag.attr == STRING ? string_dimensions(tag) : shape_dimensions(tag.attr);
}

// Whether an element of the tag is named with an index suffix.
constexpr bool has_index_suffix(const kplc_tag_str &tag) noexcept { return dimensions(tag) != 0; }

struct Bounds {
    uint32_t min;
    uint32_t max;
};

constexpr std::array<Bounds, 3> bounds(const kplc_tag_str &tag) noexcept {
    return {{{tag.ar_min, tag.ar_max}, {tag.ar1_min, tag.ar1_max}, {tag.ar2_min, tag.ar2_max}}};
}

// Dimension size max - min + 1 in unsigned 32-bit arithmetic, as the driver
// divides by it; nullopt for 0 (a range that wrapped), which would divide by zero.
constexpr std::optional<uint32_t> extent(Bounds b) noexcept {
    const uint32_t size = b.max - b.min + 1;
    if (size == 0) return std::nullopt;
    return size;
}

// Elements of an array tag as the tag file loader counts them to divide a
// string array's length: each dimension with a non-zero upper bound
// multiplies in its size, unsigned 32-bit; 0 when the first is absent.
constexpr uint32_t declared_elements(const kplc_tag_str &tag) noexcept {
    uint32_t n = 0;
    if (tag.ar_max != 0) n = tag.ar_max - tag.ar_min + 1;
    if (tag.ar1_max != 0) n *= tag.ar1_max - tag.ar1_min + 1;
    if (tag.ar2_max != 0) n *= tag.ar2_max - tag.ar2_min + 1;
    return n;
}

// The indices of row-major element `e` (the last index varying fastest) over
// `dims` dimensions, in unsigned 32-bit arithmetic as the driver prints them
// with %d; nullopt when a dimension the division needs has size 0.
constexpr std::optional<std::array<uint32_t, 3>> row_major_indices(const kplc_tag_str &tag, unsigned dims,
                                                                  uint32_t e) noexcept {
    std::array<uint32_t, 3> idx{};
    if (dims == 0) return idx;
    if (dims == 1) {
        idx[0] = tag.ar_min + e;
        return idx;
    }
    const auto d2 = extent({tag.ar1_min, tag.ar1_max});
    if (!d2) return std::nullopt;
    if (dims == 2) {
        idx[0] = tag.ar_min + e / *d2;
        idx[1] = tag.ar1_min + e % *d2;
        return idx;
    }
    const auto d3 = extent({tag.ar2_min, tag.ar2_max});
    if (!d3) return std::nullopt;
    const uint32_t row = e / *d3;
    idx[0] = tag.ar_min + row / *d2;
    idx[1] = tag.ar1_min + row % *d2;
    idx[2] = tag.ar2_min + e % *d3;
    return idx;
}

// ---- Element sizes -----------------------------------------------------------

// A string element's terminator in byte_len: one byte, one UTF-16 unit for WSTRING.
constexpr uint32_t terminator_bytes(uint16_t type) noexcept { return type == kWString ? 2 : 1; }

// Characters (bytes) of one string element without its terminator; 0 when the
// length leaves none (such a tag cannot be divided into elements).
constexpr uint32_t string_element_size(const kplc_tag_str &tag) noexcept {
    const uint32_t t = terminator_bytes(tag.type);
    return tag.byte_len > t ? tag.byte_len - t : 0;
}

// Bytes one element of width `bits` takes in the runtime's value buffer: a
// BOOL takes a whole byte holding 0 or 1; 0 for strings and widths no type has.
constexpr uint32_t value_bytes(uint8_t bits) noexcept {
    switch (bits) {
        case 1:
        case 8: return 1;
        case 16: return 2;
        case 32: return 4;
        case 64: return 8;
        default: return 0;
    }
}

// The width's element index of a runtime offset in bytes (BOOL offsets count
// bits, 8-bit offsets bytes: the element itself).
constexpr uint32_t element_of_offset(uint8_t bits, uint32_t offset) noexcept {
    const uint32_t size = value_bytes(bits);
    return size > 1 ? offset / size : offset;
}

// Elements in a stretch of `size` runtime units of a tag `bits` wide: a string
// request is one element, a width no type has none. The planner counts in
// unsigned arithmetic, the exported element count in the runtime's int.
template <class Size>
constexpr Size elements_in_stretch(int bits, Size size) noexcept {
    switch (bits) {
        case 0: return 1;
        case 1:
        case 8: return size;
        case 16: return size / 2;
        case 32: return size / 4;
        case 64: return size / 8;
        default: return 0;
    }
}

// Words a location entry asks for one element `bits` wide (strings: their
// chunk's own count, string_chunk_words). The 8-bit types have no word count
// of their own and are asked for 8.
constexpr uint32_t words_per_element(int bits) noexcept {
    switch (bits) {
        case 1:
        case 16: return 1;
        case 32: return 2;
        case 64: return 4;
        case 8: return 8;
        default: return 0;
    }
}

// Words asked for a string chunk of `bytes` characters: its bytes plus at
// least one more (the words beyond the chunk are skipped when decoding).
constexpr uint32_t string_chunk_words(uint32_t bytes) noexcept { return bytes / 2 + 1; }

// The shift that turns the write path's byte offsets and counts into the
// units its writers count in: elements for 16 and 32-bit tags, 32-bit units
// for 64-bit tags (halved again by their writer); BOOL offsets count bits and
// text offsets characters already.
constexpr unsigned write_unit_shift(uint8_t bits) noexcept {
    switch (bits) {
        case 16: return 1;
        case 32:
        case 64: return 2;
        default: return 0;
    }
}

// Words one element of a numeric tag occupies in the PLC's memory (a text
// type without a string shape: its byte length rounded up to words).
constexpr uint64_t memory_words(const kplc_tag_str &tag) noexcept {
    if (tag.bits == 0) {
        const uint64_t words = (uint64_t{tag.byte_len} + 1) / 2;
        return words == 0 ? 1 : words;
    }
    const uint32_t words = words_per_element(tag.bits);
    return words == 0 || tag.bits == 8 ? 1 : words;
}

// ---- Formed names ------------------------------------------------------------

// Decimal characters of `v` as %d prints it.
constexpr std::size_t decimal_chars(int32_t v) noexcept {
    std::size_t n = v < 0 ? 2 : 1;
    for (uint32_t m = v < 0 ? 0U - static_cast<uint32_t>(v) : static_cast<uint32_t>(v); m >= 10; m /= 10) ++n;
    return n;
}

// Characters of the index suffix of element `e` ("[#i,#j,#k]", and "[#c]"
// with character offset `c` for a string element), as the driver forms it;
// nullopt when it cannot be formed.
constexpr std::optional<std::size_t> suffix_chars(const kplc_tag_str &tag, uint32_t e, uint32_t c = 0) noexcept {
    const unsigned dims = dimensions(tag);
    const auto idx = row_major_indices(tag, dims, e);
    if (!idx) return std::nullopt;
    std::size_t n = 0;
    if (dims != 0) {
        n = 2 + (dims - 1);  // the brackets and the commas
        for (unsigned d = 0; d < dims; ++d) n += 1 + decimal_chars(static_cast<int32_t>((*idx)[d]));
    }
    if (tag.attr == STRING) n += 3 + decimal_chars(static_cast<int32_t>(c));
    return n;
}

// Subscripts ("#" numbers) of a formed element name: one per dimension, and
// a string element's character.
constexpr unsigned name_subscripts(const kplc_tag_str &tag) noexcept {
    return dimensions(tag) + (tag.attr == STRING ? 1 : 0);
}

// Bytes of a symbol entry of `units` UTF-16 code units: the count, then the units.
constexpr std::size_t symbol_entry_bytes(std::size_t units) noexcept { return 2 + 2 * units; }

}  // namespace kplc::format
