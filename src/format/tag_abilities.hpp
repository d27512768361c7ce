// What the driver can do with a tag: which types and shapes it reads and
// which it writes. The command-line tool shows and checks these; the driver's
// read planner and write dispatcher act on the same facts.
#pragma once

#include <cstdint>

#include "format/tag_geometry.hpp"
#include "format/tag_limits.hpp"
#include "format/types.hpp"
#include "kplc/tags.h"

namespace kplc::format {

// Widths whose values the read path decodes: one bit of a word, or 1, 2 or 4
// words. Width 8 (SINT, USINT, BYTE) and 0 outside a string shape (STRING2)
// have no known layout in the value response.
constexpr bool decoded_width(int bits) noexcept { return bits == 1 || bits == 16 || bits == 32 || bits == 64; }

// Why a tag cannot be read; None when it can.
enum class ReadBlock : uint8_t {
    None,
    UnknownType,
    EightBit,        // 8-bit types: no known word count or value layout
    TextWithoutLength,  // a text type outside a string shape (STRING2): no read defined
    EmptyString,     // a string length that leaves no character per element
    StringTooLong,   // a whole element's chunk needs more words than an entry asks for
};

constexpr ReadBlock read_block(const kplc_tag_str &tag) noexcept {
    const TypeRow *type = type_of(tag.type);
    if (type == nullptr) return ReadBlock::UnknownType;
    if (decoded_width(type->bits)) return ReadBlock::None;
    if (type->bits != 0) return ReadBlock::EightBit;
    if (tag.attr != STRING) return ReadBlock::TextWithoutLength;
    const uint32_t size = string_element_size(tag);
    if (size == 0) return ReadBlock::EmptyString;
    if (string_chunk_words(size) > kMaxEntryWords) return ReadBlock::StringTooLong;
    return ReadBlock::None;
}

// The longest string element the read path takes whole.
inline constexpr uint32_t kMaxReadStringBytes = 2 * (kMaxEntryWords - 1) + 1;

// Types the write dispatcher hands to a writer; every other type gets "no writer".
constexpr bool has_writer(uint16_t type) noexcept {
    switch (type) {
        case kBool: case kInt: case kUint: case kDint: case kUdint: case kReal: case kLreal: case kLtime:
        case kString: return true;
        default: return false;
    }
}

// Name classes of the tag file (var_type): a plain name, a structure member,
// a member reached through an index. Writers exist for these three.
inline constexpr uint8_t kPlainName = 1;
inline constexpr uint8_t kMember = 2;
inline constexpr uint8_t kIndexedMember = 3;

}  // namespace kplc::format
