#include "tags/tag_name.hpp"

#include <cstring>

namespace kplc {

uint8_t name_class(std::string_view name) noexcept {
    if (name.find('.') == std::string_view::npos) return 1;
    return name.find(']') == std::string_view::npos ? 2 : 3;
}

std::string_view stored_name(const char (&field)[kNameCapacity + 1]) noexcept {
    return {field, strnlen(field, kNameCapacity)};
}

void split_program_prefix(kplc_tag_str &tag) noexcept {
    const std::string_view name = stored_name(tag.name);
    const std::size_t dot = name.find('.');
    if (dot == std::string_view::npos) return;
    std::memcpy(tag.local_name, name.data(), dot);
    tag.local_name[dot] = '\0';
    const std::size_t rest = name.size() - dot - 1;
    std::memmove(tag.name, name.data() + dot + 1, rest);
    tag.name[rest] = '\0';
}

void insert_char(char *str, const char *pch, int pos) noexcept {
    if (str == nullptr || pch == nullptr || pos < 0) return;
    const std::size_t len = std::strlen(str);
    const auto at = static_cast<std::size_t>(pos);
    // Only a place inside the text or at its end keeps the result one text.
    if (at > len) return;
    std::memmove(str + at + 1, str + at, len - at + 1);
    str[at] = *pch;
}

}  // namespace kplc
