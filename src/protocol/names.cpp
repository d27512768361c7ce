#include "protocol/names.hpp"

#include <cstdio>
#include <cstring>

namespace kplc::proto {

namespace {

// Index values are unsigned 32-bit arithmetic printed with %d: bounds read from
// a tag file through %d come back as the numbers the file held.
int as_int(uint32_t v) noexcept { return static_cast<int>(v); }

// Dimension size max - min + 1; 0 (an empty or inverted range) would divide by zero.
std::optional<uint32_t> extent(uint32_t min, uint32_t max) noexcept {
    const uint32_t size = max - min + 1;
    if (size == 0) return std::nullopt;
    return size;
}

// Appends formatted text after `len` bytes of `out`; false when it does not fit.
template <typename... Args>
bool append(std::span<char> out, std::size_t &len, const char *format, Args... args) noexcept {
    if (len >= out.size()) return false;
    const int n = std::snprintf(out.data() + len, out.size() - len, format, args...);
    if (n < 0 || static_cast<std::size_t>(n) >= out.size() - len) return false;
    len += static_cast<std::size_t>(n);
    return true;
}

bool start_with_name(std::span<char> out, std::size_t &len, const kplc_tag_str &tag) noexcept {
    const std::size_t name_len = strnlen(tag.name, sizeof tag.name);
    if (name_len >= sizeof tag.name || name_len >= out.size()) return false;
    std::memcpy(out.data(), tag.name, name_len);
    out[name_len] = '\0';
    len = name_len;
    return true;
}

// The index brackets of element `e` for the given number of dimensions.
bool append_indices(std::span<char> out, std::size_t &len, const kplc_tag_str &tag, int dims, uint32_t e) noexcept {
    if (dims == 1) return append(out, len, "[#%d]", as_int(tag.ar_min + e));
    const auto d2 = extent(tag.ar1_min, tag.ar1_max);
    if (!d2) return false;
    if (dims == 2) return append(out, len, "[#%d,#%d]", as_int(tag.ar_min + e / *d2), as_int(tag.ar1_min + e % *d2));
    const auto d3 = extent(tag.ar2_min, tag.ar2_max);
    if (!d3) return false;
    const uint32_t row = e / *d3;
    return append(out, len, "[#%d,#%d,#%d]", as_int(tag.ar_min + row / *d2), as_int(tag.ar1_min + row % *d2),
                  as_int(tag.ar2_min + e % *d3));
}

}  // namespace

std::optional<std::size_t> element_name(std::span<char> out, const kplc_tag_str &tag, var_attr shape, uint32_t e) {
    std::size_t len = 0;
    if (!start_with_name(out, len, tag)) return std::nullopt;
    int dims = 0;
    switch (shape) {
        case ARRAY: dims = 1; break;
        case ARRAY2: dims = 2; break;
        case ARRAY3: dims = 3; break;
        default: return len;  // a single element is named by the tag name alone
    }
    if (!append_indices(out, len, tag, dims, e)) return std::nullopt;
    return len;
}

std::optional<std::size_t> string_element_name(std::span<char> out, const kplc_tag_str &tag, uint32_t element,
                                               uint32_t char_offset) {
    std::size_t len = 0;
    if (!start_with_name(out, len, tag)) return std::nullopt;
    // The string forms are chosen by the upper bounds, not by the shape: a
    // string array declared [0..0] has ar_max 0 and is named as a single string.
    const int dims = tag.ar2_max != 0 ? 3 : tag.ar1_max != 0 ? 2 : tag.ar_max != 0 ? 1 : 0;
    if (dims > 0 && !append_indices(out, len, tag, dims, element)) return std::nullopt;
    if (!append(out, len, "[#%d]", as_int(char_offset))) return std::nullopt;
    return len;
}

}  // namespace kplc::proto
