// Building message texts.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace kplc::cli {

// Appends code point `cp` as UTF-8 (1 to 4 bytes).
inline void append_utf8(std::string &out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | cp >> 6));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | cp >> 12));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | cp >> 18));
        out.push_back(static_cast<char>(0x80 | (cp >> 12 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

namespace detail {
inline std::string_view piece(std::string_view s) { return s; }
inline std::string piece(std::integral auto v) { return std::to_string(v); }
}  // namespace detail

// Joins texts and numbers by appending to one string. (Chains of
// "literal" + std::string temporaries also trip a false -Wrestrict report of
// GCC 12 at -O3.)
template <typename... Parts>
std::string cat(const Parts &...parts) {
    std::string out;
    (out.append(detail::piece(parts)), ...);
    return out;
}

}  // namespace kplc::cli
