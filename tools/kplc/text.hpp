// Building message texts.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace kplc::cli {

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
