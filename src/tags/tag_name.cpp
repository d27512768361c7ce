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

bool rewrite_symbol(std::span<char, kNameCapacity + 1> name, std::string_view column) noexcept {
    // One pass does both rewrites: joining "][" into "," can never form a new
    // "][", and a '[' gets its '#' by its place in the joined name.
    const std::size_t size = column.size();
    // Up to the first bracket nothing is rewritten: copied as it stands.
    std::size_t start = 0;
    while (start < size && column[start] != '[' && column[start] != ']') ++start;
    if (start > kNameCapacity) {
        // As when copied one by one: the field is filled, then emptied.
        std::memcpy(name.data(), column.data(), kNameCapacity);
        name[0] = '\0';
        return false;
    }
    std::memcpy(name.data(), column.data(), start);
    std::size_t len = start;
    for (std::size_t i = start; i < size; ++i) {
        const char c = column[i];
        // At most two characters go out per character in; the last one a '#'
        // that needs room of its own.
        if (len == kNameCapacity) {
            name[0] = '\0';
            return false;
        }
        if (c == ']' && i + 1 < size && column[i + 1] == '[') {
            name[len++] = ',';
            ++i;
        } else {
            name[len++] = c;
            if (c == '[' && len != 1) {
                if (len == kNameCapacity) {
                    name[0] = '\0';
                    return false;
                }
                name[len++] = '#';
            }
        }
    }
    name[len] = '\0';
    return true;
}

bool append_name_rest(std::span<char, kNameCapacity + 1> name, std::string_view rest) noexcept {
    const std::size_t len = strnlen(name.data(), kNameCapacity);
    if (rest.size() > kNameCapacity - len || kNameCapacity - len - rest.size() < 2) {
        name[0] = '\0';
        return false;
    }
    char *end = name.data() + len;
    *end++ = ',';
    *end++ = '#';
    std::memcpy(end, rest.data(), rest.size());
    end[rest.size()] = '\0';
    return true;
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

}  // namespace kplc

extern "C" {

KPLC_API int varParse(unsigned char *varInfo) {
    if (varInfo == nullptr) return 1;  // no text: no '.'
    return kplc::name_class(reinterpret_cast<const char *>(varInfo));
}

KPLC_API void insert(char *str, char *pch, int pos) {
    if (str == nullptr || pch == nullptr || pos < 0) return;
    const std::size_t len = std::strlen(str);
    const auto at = static_cast<std::size_t>(pos);
    // Only a place inside the text or at its end keeps the result one text.
    if (at > len) return;
    std::memmove(str + at + 1, str + at, len - at + 1);
    str[at] = *pch;
}

}  // extern "C"
