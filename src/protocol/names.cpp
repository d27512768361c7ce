#include "protocol/names.hpp"

#include <array>
#include <cstring>
#include <initializer_list>
#include <iterator>

#include "format/tag_geometry.hpp"

namespace kplc::proto {

namespace {

// Index values are unsigned 32-bit arithmetic printed with %d: bounds read from
// a tag file through %d come back as the numbers the file held.
int as_int(uint32_t v) noexcept { return static_cast<int>(v); }

// The decimal text of `v` as %d prints it, written back to front ending at `end`;
// returns where it starts. 11 characters at most ("-2147483648").
char *decimal(int v, char *end) noexcept {
    // Negated in unsigned arithmetic, so that INT_MIN has a magnitude too.
    uint32_t magnitude = v < 0 ? 0U - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
    do {
        *--end = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (v < 0) *--end = '-';
    return end;
}

// Appends "[#a,#b,...]" (one "#n" per value, comma-separated) after `len`
// bytes of `out`, zero-terminated; false when it does not fit. Formed by hand
// rather than with snprintf: a batch forms one such suffix per element.
bool append_bracket(std::span<char> out, std::size_t &len, std::initializer_list<uint32_t> values) noexcept {
    // Room for three 11-character numbers with their "#" and separators.
    std::array<char, 48> text;
    char *const end = text.data() + text.size();
    char *start = end;
    *--start = ']';
    bool last = true;
    for (auto it = std::rbegin(values); it != std::rend(values); ++it) {
        if (!last) *--start = ',';
        last = false;
        start = decimal(as_int(*it), start);
        *--start = '#';
    }
    *--start = '[';
    const auto n = static_cast<std::size_t>(end - start);
    // snprintf's rule: the text and its terminator must fit.
    if (len >= out.size() || n >= out.size() - len) return false;
    std::memcpy(out.data() + len, start, n);
    len += n;
    out[len] = '\0';
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
bool append_indices(std::span<char> out, std::size_t &len, const kplc_tag_str &tag, unsigned dims,
                    uint32_t e) noexcept {
    const auto idx = format::row_major_indices(tag, dims, e);
    if (!idx) return false;
    if (dims == 1) return append_bracket(out, len, {(*idx)[0]});
    if (dims == 2) return append_bracket(out, len, {(*idx)[0], (*idx)[1]});
    return append_bracket(out, len, {(*idx)[0], (*idx)[1], (*idx)[2]});
}

}  // namespace

std::optional<std::size_t> element_suffix(std::span<char> out, const kplc_tag_str &tag, var_attr shape, uint32_t e) {
    // A single element is named by the tag name alone.
    const unsigned dims = format::shape_dimensions(shape);
    std::size_t len = 0;
    if (out.empty()) return std::nullopt;
    out[0] = '\0';
    if (dims > 0 && !append_indices(out, len, tag, dims, e)) return std::nullopt;
    return len;
}

std::optional<std::size_t> string_element_suffix(std::span<char> out, const kplc_tag_str &tag, uint32_t element,
                                                 uint32_t char_offset) {
    // The string forms are chosen by the upper bounds, not by the shape: a
    // string array declared [0..0] has ar_max 0 and is named as a single string.
    const unsigned dims = format::string_dimensions(tag);
    std::size_t len = 0;
    if (dims > 0 && !append_indices(out, len, tag, dims, element)) return std::nullopt;
    if (!append_bracket(out, len, {char_offset})) return std::nullopt;
    return len;
}

std::optional<std::size_t> element_name(std::span<char> out, const kplc_tag_str &tag, var_attr shape, uint32_t e) {
    std::size_t len = 0;
    if (!start_with_name(out, len, tag)) return std::nullopt;
    const auto suffix = element_suffix(out.subspan(len), tag, shape, e);
    if (!suffix) return std::nullopt;
    return len + *suffix;
}

std::optional<std::size_t> string_element_name(std::span<char> out, const kplc_tag_str &tag, uint32_t element,
                                               uint32_t char_offset) {
    std::size_t len = 0;
    if (!start_with_name(out, len, tag)) return std::nullopt;
    const auto suffix = string_element_suffix(out.subspan(len), tag, element, char_offset);
    if (!suffix) return std::nullopt;
    return len + *suffix;
}

}  // namespace kplc::proto
