// Numbers and array ranges from the text columns of a tag file line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace kplc {

// Reads a decimal number at the front of `text` the way a "%d" conversion
// does: leading white space, an optional sign, at least one digit. On success
// `text` is advanced past the number. The value wraps modulo 2^32, which
// equals the two's complement of every value that fits an int.
std::optional<uint32_t> scan_decimal(std::string_view &text) noexcept;

// Matches `text` against `pattern`, in which "%d" is a decimal conversion and
// every other character must appear literally. Conversions are stored into
// `out` in order as they succeed; matching stops at the first mismatch or
// when `out` is full. Returns the number stored.
std::size_t scan_pattern(std::string_view text, std::string_view pattern, std::span<uint32_t> out) noexcept;

}  // namespace kplc
