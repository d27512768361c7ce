// Values as the runtime holds them and as a person types them.
//
// The runtime's value buffer holds numbers in the panel's little-endian order,
// one byte (0 or 1) per BOOL element and the characters of each string element
// back to back (the read path copies a string's bytes as the PLC sends them).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tag_set.hpp"

namespace kplc::cli {

// One element, `bytes` holding tag.element_bytes bytes. Text is shown as is
// (control characters escaped), or quoted when `quoted` (inside a list).
std::string format_element(const Tag &tag, std::span<const uint8_t> bytes, bool quoted = false);

// The elements of a selection: one value, a list, or nested lists for a whole
// multi-dimensional array. `bytes` holds count * element_bytes bytes.
std::string format_selection(const Tag &tag, const Selection &sel, std::span<const uint8_t> bytes);

struct Items {
    std::vector<std::string> items;
    std::string error;  // set on failure
};

// Splits the value of a write into element values. Numbers and BOOLs: a comma
// list, optionally in brackets (nested brackets are flattened). Text: the whole
// value is one element unless the target is a whole array or the value starts
// with '['; list items may be quoted ("a,b", with \" \\ \n \t \xNN escapes).
Items split_items(const Tag &tag, const Selection &target, std::string_view value);

// One element value in the runtime's layout: element_bytes bytes for numbers
// and BOOLs; the characters (no terminator) for text, at most element_bytes.
std::optional<std::vector<uint8_t>> encode_element(const Tag &tag, std::string_view item, std::string &error);

}  // namespace kplc::cli
