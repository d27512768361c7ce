// Tag names: turning the symbol column of a tag file into the name that the
// PLC resolves, and classifying names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "kplc/tags.h"

namespace kplc {

// Characters a record's name (and program name) can hold before its terminator.
inline constexpr std::size_t kNameCapacity = 255;

// Name class: 1 without '.', 2 with '.' but no ']', 3 with both.
uint8_t name_class(std::string_view name) noexcept;

// The text in a 256-byte name field, never looking past the field's capacity.
std::string_view stored_name(const char (&field)[kNameCapacity + 1]) noexcept;

// Writes the symbol column into `name`: "][" becomes "," (Cell[1][2] ->
// Cell[1,2]) and every '[' after the first character is followed by '#',
// the PLC's index marker (Cell[#1,2], Arr[#3]). Returns false and leaves
// `name` empty when the result would exceed kNameCapacity.
bool rewrite_symbol(std::span<char, kNameCapacity + 1> name, std::string_view column) noexcept;

// Appends ",#" and `rest`, the part of a two-index name (Axis[2,3]) that the
// comma split off into the next column. Returns false and leaves `name` empty
// when the result would exceed kNameCapacity.
bool append_name_rest(std::span<char, kNameCapacity + 1> name, std::string_view rest) noexcept;

// A program-local symbol is "Program.Variable": cut the name at its first '.'
// into local_name (before) and name (after). Without a '.' nothing changes.
void split_program_prefix(kplc_tag_str &tag) noexcept;

}  // namespace kplc
