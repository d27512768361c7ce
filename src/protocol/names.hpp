// Symbolic names of tag elements, as the PLC resolves them.
//
// An element of an array tag is named by the tag's name and an index suffix
// "[#i]", "[#i,#j]" or "[#i,#j,#k]"; a character of a string element adds the
// character position as a last bracket, "[#i][#c]". Element offsets run
// through the array in row-major order (the last index varies fastest).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kplc/tags.h"

namespace kplc::proto {

// Writes tag.name followed by the index suffix of element `e` for `shape`
// (NORMAL, STRUCT and STRING: the name alone) into `out`, zero-terminated.
// Returns the length, or nullopt when the name does not fit `out` or a
// dimension size (max - min + 1) is 0.
std::optional<std::size_t> element_name(std::span<char> out, const kplc_tag_str &tag, var_attr shape, uint32_t e);

// Writes tag.name followed by the suffix that names character `char_offset` of
// string element `element`, chosen by which upper bounds are non-zero:
// "[#i,#j,#k][#c]", "[#i,#j][#c]", "[#i][#c]", or "[#c]" with char_offset alone
// for a single string. Same result convention as element_name.
std::optional<std::size_t> string_element_name(std::span<char> out, const kplc_tag_str &tag, uint32_t element,
                                               uint32_t char_offset);

// The index suffix alone (what element_name and string_element_name write after
// tag.name), zero-terminated in `out`; same result convention. A batch names
// many elements of one tag: the tag name's part of every name is the same.
std::optional<std::size_t> element_suffix(std::span<char> out, const kplc_tag_str &tag, var_attr shape, uint32_t e);
std::optional<std::size_t> string_element_suffix(std::span<char> out, const kplc_tag_str &tag, uint32_t element,
                                                 uint32_t char_offset);

}  // namespace kplc::proto
