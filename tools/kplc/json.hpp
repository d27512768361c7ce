// Results as JSON: values typed by the tag's type (numbers, booleans, texts),
// arrays as JSON arrays, nested for whole multi-dimensional arrays.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tag_set.hpp"

namespace kplc::cli {

// A JSON string. Bytes that are not UTF-8 (a PLC text in an 8-bit code page)
// are taken as Latin-1 characters, so the result is always valid JSON.
std::string json_string(std::string_view text);

// UTF-16 code units, high byte first (the PLC's text order), up to the first zero unit, as UTF-8.
std::string utf8_of_utf16be(std::span<const uint8_t> units);

// The elements of a selection as JSON, laid out like format_selection.
std::string json_selection(const Tag &tag, const Selection &sel, std::span<const uint8_t> bytes);

}  // namespace kplc::cli
