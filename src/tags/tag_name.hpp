// Tag names: their field in the record, classifying them and cutting off a
// program prefix. The tag file's symbol column is rewritten into the name by
// the line parser as it walks the line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kplc/tags.h"

namespace kplc {

// Characters a record's name (and program name) can hold before its terminator.
inline constexpr std::size_t kNameCapacity = 255;

// Name class: 1 without '.', 2 with '.' but no ']', 3 with both.
uint8_t name_class(std::string_view name) noexcept;

// The text in a 256-byte name field, never looking past the field's capacity.
std::string_view stored_name(const char (&field)[kNameCapacity + 1]) noexcept;

// A program-local symbol is "Program.Variable": cut the name at its first '.'
// into local_name (before) and name (after). Without a '.' nothing changes.
void split_program_prefix(kplc_tag_str &tag) noexcept;

// Inserts the character *pch into the text `str` before position `pos`
// (at most at its end; otherwise nothing changes).
void insert_char(char *str, const char *pch, int pos) noexcept;

}  // namespace kplc
