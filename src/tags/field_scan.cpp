#include "tags/field_scan.hpp"

namespace kplc {
namespace {

constexpr bool is_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<uint32_t> scan_decimal(std::string_view &text) noexcept {
    std::size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    if (i == text.size() || !is_digit(text[i])) return std::nullopt;
    uint32_t value = 0;
    for (; i < text.size() && is_digit(text[i]); ++i) value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    text.remove_prefix(i);
    return negative ? 0u - value : value;
}

std::size_t scan_pattern(std::string_view text, std::string_view pattern, std::span<uint32_t> out) noexcept {
    std::size_t stored = 0;
    while (!pattern.empty() && stored < out.size()) {
        if (pattern.starts_with("%d")) {
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
