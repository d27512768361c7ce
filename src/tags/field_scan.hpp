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
// Inline: the parser calls it several times on every line of a tag file.
inline std::optional<uint32_t> scan_decimal(std::string_view &text) noexcept {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0;
    // Most columns start with their digits; white space is rare.
    if (i < text.size() && !is_digit(text[i])) {
        const auto is_space = [](char c) {
            return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
        };
        while (i < text.size() && is_space(text[i])) ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i == text.size() || !is_digit(text[i])) return std::nullopt;
    uint32_t value = 0;
    for (; i < text.size() && is_digit(text[i]); ++i) value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    text.remove_prefix(i);
    return negative ? 0u - value : value;
}

// Matches `text` against `pattern`, in which "%d" is a decimal conversion and
// every other character must appear literally. Conversions are stored into
// `out` in order as they succeed; matching stops at the first mismatch or
// when `out` is full. Returns the number stored.
inline std::size_t scan_pattern(std::string_view text, std::string_view pattern, std::span<uint32_t> out) noexcept {
    std::size_t stored = 0;
    while (!pattern.empty() && stored < out.size()) {
        if (pattern.size() >= 2 && pattern[0] == '%' && pattern[1] == 'd') {
            const std::optional<uint32_t> value = scan_decimal(text);
            if (!value) break;
            out[stored++] = *value;
            pattern.remove_prefix(2);
        } else {
            if (text.empty() || text.front() != pattern.front()) break;
            text.remove_prefix(1);
            pattern.remove_prefix(1);
        }
    }
    return stored;
}

}  // namespace kplc
