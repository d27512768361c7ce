#include "json.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "text.hpp"
#include "values.hpp"

namespace kplc::cli {
namespace {

// Length of the UTF-8 sequence at `s[i]`, 0 when there is none.
std::size_t utf8_length(std::string_view s, std::size_t i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const std::size_t len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (len == 0 || i + len > s.size()) return 0;
    for (std::size_t k = 1; k < len; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    return len;
}

uint64_t load_le(std::span<const uint8_t> b) {
    uint64_t v = 0;
    for (std::size_t i = b.size(); i-- > 0;) v = v << 8 | b[i];
    return v;
}

std::string json_element(const Tag &tag, std::span<const uint8_t> b) {
    if (tag.type == nullptr || b.size() < tag.element_bytes) return "null";
    switch (tag.type->kind) {
    case ValueKind::Bool: return b[0] != 0 ? "true" : "false";
    case ValueKind::Bits: return std::to_string(load_le(b));
    case ValueKind::Real: {
        double v = 0;
        if (b.size() == 4) {
            float f;
            std::memcpy(&f, b.data(), 4);
            v = f;
        } else {
            std::memcpy(&v, b.data(), 8);
        }
        return std::isfinite(v) ? format_element(tag, b) : "null";  // JSON has no NaN or infinity
    }
    case ValueKind::Text: {
        const auto *text = reinterpret_cast<const char *>(b.data());
        return json_string(std::string_view(text, strnlen(text, b.size())));
    }
    case ValueKind::WideText: return json_string(utf8_of_utf16be(b));
    case ValueKind::Signed:
    case ValueKind::Unsigned: break;
    }
    return format_element(tag, b);
}

void nest(std::string &out, const Tag &tag, const Shape &shape, unsigned dim, std::span<const uint8_t> &bytes) {
    out += "[";
    for (uint32_t i = 0; i < shape.size[dim]; ++i) {
        if (i != 0) out += ",";
        if (dim + 1 < shape.dims) {
            nest(out, tag, shape, dim + 1, bytes);
        } else {
            out += json_element(tag, bytes.first(tag.element_bytes));
            bytes = bytes.subspan(tag.element_bytes);
        }
    }
    out += "]";
}

}  // namespace

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t len = utf8_length(text, i);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F || len == 0) {
            if (len == 0 && c >= 0x80) {
                append_utf8(out, c);  // Latin-1
            } else {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            }
        } else {
            out.append(text.substr(i, len));
            i += len;
            continue;
        }
        ++i;
    }
    return out + "\"";
}

std::string utf8_of_utf16be(std::span<const uint8_t> b) {
    std::string out;
    for (std::size_t i = 0; i + 1 < b.size(); i += 2) {
        uint32_t u = static_cast<uint32_t>(b[i] << 8 | b[i + 1]);
        if (u == 0) break;
        if (u >= 0xD800 && u < 0xDC00 && i + 3 < b.size()) {
            const auto lo = static_cast<uint32_t>(b[i + 2] << 8 | b[i + 3]);
            if (lo >= 0xDC00 && lo < 0xE000) {
                u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                i += 2;
            }
        }
        append_utf8(out, u);
    }
    return out;
}

std::string json_selection(const Tag &tag, const Selection &sel, std::span<const uint8_t> bytes) {
    const std::size_t width = tag.element_bytes;
    if (sel.whole && tag.shape && tag.shape->dims != 0 && bytes.size() >= width * tag.shape->elements) {
        std::string out;
        nest(out, tag, *tag.shape, 0, bytes);
        return out;
    }
    // One element is a value; a range ("Temps[2..2]") stays a list even of one.
    if (sel.count == 1 && sel.label.find("..") == std::string::npos)
        return json_element(tag, bytes.first(std::min(width, bytes.size())));
    std::string out = "[";
    for (uint32_t i = 0; i < sel.count && (i + 1) * width <= bytes.size(); ++i) {
        if (i != 0) out += ",";
        out += json_element(tag, bytes.subspan(i * width, width));
    }
    return out + "]";
}

}  // namespace kplc::cli
