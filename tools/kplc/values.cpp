#include "values.hpp"

#include "text.hpp"

#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>

namespace kplc::cli {
namespace {

uint64_t load_le(std::span<const uint8_t> b) {
    uint64_t v = 0;
    for (std::size_t i = b.size(); i-- > 0;) v = (v << 8) | b[i];
    return v;
}

void store_le(uint64_t v, std::size_t width, std::vector<uint8_t> &out) {
    for (std::size_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void append_escaped(std::string &out, uint32_t c, bool quoted) {
    if (quoted && (c == '"' || c == '\\')) {
        out.push_back('\\');
        out.push_back(static_cast<char>(c));
    } else if (c < 0x20 || c == 0x7F) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\x%02X", static_cast<unsigned>(c));
        out += buf;
    } else {
        out.push_back(static_cast<char>(c));
    }
}

std::string format_text(std::span<const uint8_t> b, bool quoted) {
    std::string out = quoted ? "\"" : "";
    for (uint8_t c : b) {
        if (c == 0) break;
        append_escaped(out, c, quoted);
    }
    if (quoted) out.push_back('"');
    return out;
}

// UTF-16 code units, high byte first, up to the first zero unit.
std::string format_wide(std::span<const uint8_t> b, bool quoted) {
    std::string out = quoted ? "\"" : "";
    for (std::size_t i = 0; i + 1 < b.size(); i += 2) {
        uint32_t u = static_cast<uint32_t>(b[i] << 8 | b[i + 1]);
        if (u == 0) break;
        if (u >= 0xD800 && u < 0xDC00 && i + 3 < b.size()) {
            const uint32_t lo = static_cast<uint32_t>(b[i + 2] << 8 | b[i + 3]);
            if (lo >= 0xDC00 && lo < 0xE000) {
                u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                i += 2;
            }
        }
        if (u < 0x80) append_escaped(out, u, quoted);
        else append_utf8(out, u);
    }
    if (quoted) out.push_back('"');
    return out;
}

template <typename F>
std::string format_float(F value) {
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
    return ec == std::errc{} ? std::string(buf, end) : std::string("?");
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// Decimal with optional sign, or hexadecimal "0x..." / "16#..." as a bit pattern.
struct Integer {
    bool negative = false;
    bool hex = false;
    uint64_t magnitude = 0;
};

std::optional<Integer> parse_integer(std::string_view s) {
    Integer v;
    if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
        v.negative = s.front() == '-';
        s.remove_prefix(1);
    }
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    } else if (s.size() > 3 && s.substr(0, 3) == "16#") {
        base = 16;
        s.remove_prefix(3);
    }
    v.hex = base == 16;
    if (s.empty() || (v.hex && v.negative)) return std::nullopt;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v.magnitude, base);
    if (ec != std::errc{} || end != s.data() + s.size()) return std::nullopt;
    return v;
}

std::optional<std::vector<uint8_t>> encode_integer(std::string_view item, std::size_t width, bool is_signed,
                                                   std::string &error) {
    const auto v = parse_integer(item);
    const unsigned bits = static_cast<unsigned>(8 * width);
    if (!v) {
        error = cat("'", item, "' is not an integer");
        return std::nullopt;
    }
    const uint64_t umax = bits == 64 ? std::numeric_limits<uint64_t>::max() : (uint64_t{1} << bits) - 1;
    uint64_t pattern = 0;
    if (v->hex || !is_signed) {
        if (v->negative && v->magnitude != 0) {
            error = cat("'", item, "' is negative; the type is unsigned");
            return std::nullopt;
        }
        if (v->magnitude > umax) {
            error = cat("'", item, "' does not fit ", bits, " bits");
            return std::nullopt;
        }
        pattern = v->magnitude;
    } else {
        const uint64_t limit = uint64_t{1} << (bits - 1);  // |min|; max is limit - 1
        if (v->negative ? v->magnitude > limit : v->magnitude >= limit) {
            error = cat("'", item, "' is outside the range of a ", bits, "-bit signed integer");
            return std::nullopt;
        }
        pattern = v->negative ? (~v->magnitude + 1) & umax : v->magnitude;
    }
    std::vector<uint8_t> out;
    store_le(pattern, width, out);
    return out;
}

template <typename F>
std::optional<std::vector<uint8_t>> encode_real(std::string_view item, std::string &error) {
    F value{};
    const char *begin = item.data();
    if (!item.empty() && item.front() == '+') ++begin;
    auto [end, ec] = std::from_chars(begin, item.data() + item.size(), value);
    if (ec == std::errc::result_out_of_range) {
        error = cat("'", item, "' is out of range for a ", 8 * sizeof(F), "-bit real");
        return std::nullopt;
    }
    if (ec != std::errc{} || end != item.data() + item.size() || item.empty()) {
        error = cat("'", item, "' is not a number");
        return std::nullopt;
    }
    std::vector<uint8_t> out(sizeof(F));
    std::memcpy(out.data(), &value, sizeof(F));  // the panel and this host are both little-endian
    return out;
}

// UTF-8 to UTF-16 code units, high byte first.
std::optional<std::vector<uint8_t>> encode_wide(std::string_view s) {
    std::vector<uint8_t> out;
    for (std::size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        uint32_t cp = 0;
        std::size_t len = 0;
        if (c < 0x80) cp = c, len = 1;
        else if ((c & 0xE0) == 0xC0) cp = c & 0x1F, len = 2;
        else if ((c & 0xF0) == 0xE0) cp = c & 0x0F, len = 3;
        else if ((c & 0xF8) == 0xF0) cp = c & 0x07, len = 4;
        else return std::nullopt;
        if (i + len > s.size()) return std::nullopt;
        for (std::size_t k = 1; k < len; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return std::nullopt;
            cp = (cp << 6) | (cc & 0x3F);
        }
        i += len;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            const uint32_t hi = 0xD800 + (cp >> 10), lo = 0xDC00 + (cp & 0x3FF);
            out.insert(out.end(), {static_cast<uint8_t>(hi >> 8), static_cast<uint8_t>(hi),
                                   static_cast<uint8_t>(lo >> 8), static_cast<uint8_t>(lo)});
        } else {
            out.insert(out.end(), {static_cast<uint8_t>(cp >> 8), static_cast<uint8_t>(cp)});
        }
    }
    return out;
}

// A quoted list item: "..." with escapes. `s` starts at the opening quote;
// on success it is advanced past the closing quote.
std::optional<std::string> take_quoted(std::string_view &s) {
    std::string out;
    std::size_t i = 1;
    for (; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '"') break;
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (++i >= s.size()) return std::nullopt;
        switch (s[i]) {
        case 'n': out.push_back('\n'); break;
        case 't': out.push_back('\t'); break;
        case 'r': out.push_back('\r'); break;
        case 'x': {
            unsigned v = 0;
            if (i + 2 >= s.size()) return std::nullopt;
            auto [end, ec] = std::from_chars(s.data() + i + 1, s.data() + i + 3, v, 16);
            if (ec != std::errc{} || end != s.data() + i + 3) return std::nullopt;
            out.push_back(static_cast<char>(v));
            i += 2;
            break;
        }
        default: out.push_back(s[i]); break;
        }
    }
    if (i >= s.size()) return std::nullopt;
    s.remove_prefix(i + 1);
    return out;
}

void nest(std::string &out, const Tag &tag, const Shape &shape, unsigned dim, std::span<const uint8_t> &bytes) {
    out += "[";
    for (uint32_t i = 0; i < shape.size[dim]; ++i) {
        if (i != 0) out += ", ";
        if (dim + 1 < shape.dims) {
            nest(out, tag, shape, dim + 1, bytes);
        } else {
            out += format_element(tag, bytes.first(tag.element_bytes), true);
            bytes = bytes.subspan(tag.element_bytes);
        }
    }
    out += "]";
}

}  // namespace

std::string format_element(const Tag &tag, std::span<const uint8_t> b, bool quoted) {
    if (tag.type == nullptr || b.size() < tag.element_bytes) return "?";
    switch (tag.type->kind) {
    case ValueKind::Bool: return b[0] != 0 ? "1" : "0";
    case ValueKind::Signed: {
        const unsigned bits = static_cast<unsigned>(8 * b.size());
        uint64_t v = load_le(b);
        if (bits < 64 && (v >> (bits - 1)) != 0) v |= ~uint64_t{0} << bits;  // sign-extend
        return std::to_string(static_cast<int64_t>(v));
    }
    case ValueKind::Unsigned: return std::to_string(load_le(b));
    case ValueKind::Bits: {
        char buf[24];
        std::snprintf(buf, sizeof buf, "0x%0*llX", static_cast<int>(2 * b.size()),
                      static_cast<unsigned long long>(load_le(b)));
        return buf;
    }
    case ValueKind::Real:
        if (b.size() == 4) {
            float f;
            std::memcpy(&f, b.data(), 4);
            return format_float(f);
        } else {
            double d;
            std::memcpy(&d, b.data(), 8);
            return format_float(d);
        }
    case ValueKind::Text: return format_text(b, quoted);
    case ValueKind::WideText: return format_wide(b, quoted);
    }
    return "?";
}

std::string format_selection(const Tag &tag, const Selection &sel, std::span<const uint8_t> bytes) {
    const std::size_t width = tag.element_bytes;
    if (sel.whole && tag.shape && tag.shape->dims != 0 && bytes.size() >= width * tag.shape->elements) {
        std::string out;
        nest(out, tag, *tag.shape, 0, bytes);
        return out;
    }
    if (sel.count == 1) return format_element(tag, bytes.first(std::min(width, bytes.size())));
    std::string out = "[";
    for (uint32_t i = 0; i < sel.count && (i + 1) * width <= bytes.size(); ++i) {
        if (i != 0) out += ", ";
        out += format_element(tag, bytes.subspan(i * width, width), true);
    }
    return out + "]";
}

Items split_items(const Tag &tag, const Selection &target, std::string_view value) {
    Items r;
    const bool whole_array = target.whole && tag.shape && tag.shape->dims != 0;
    if (tag.is_text()) {
        if (!whole_array && (value.empty() || value.front() != '[')) {
            r.items.emplace_back(value);
            return r;
        }
        std::string_view s = trim(value);
        if (!s.empty() && s.front() == '[') {
            if (s.back() != ']') return {{}, cat("unbalanced '[' in '", value, "'")};
            s = trim(s.substr(1, s.size() - 2));
        }
        while (true) {
            s = trim(s);
            if (!s.empty() && s.front() == '"') {
                auto text = take_quoted(s);
                if (!text) return {{}, cat("unterminated quote or bad escape in '", value, "'")};
                r.items.push_back(std::move(*text));
                s = trim(s);
                if (!s.empty() && s.front() != ',')
                    return {{}, cat("expected ',' after a quoted text in '", value, "'")};
            } else {
                const std::size_t comma = s.find(',');
                r.items.emplace_back(trim(s.substr(0, comma)));
                s = comma == std::string_view::npos ? std::string_view{} : s.substr(comma);
            }
            if (s.empty()) break;
            s.remove_prefix(1);  // the comma
        }
        return r;
    }
    std::string flat;
    for (char c : value)
        if (c != '[' && c != ']') flat.push_back(c);
    std::string_view s = flat;
    while (true) {
        const std::size_t comma = s.find(',');
        const std::string_view item = trim(s.substr(0, comma));
        if (item.empty()) return {{}, cat("empty value in '", value, "'")};
        r.items.emplace_back(item);
        if (comma == std::string_view::npos) break;
        s.remove_prefix(comma + 1);
    }
    return r;
}

std::optional<std::vector<uint8_t>> encode_element(const Tag &tag, std::string_view item, std::string &error) {
    if (tag.type == nullptr || tag.element_bytes == 0) {
        error = cat("tag '", tag.label, "' has no usable type or length");
        return std::nullopt;
    }
    const ValueKind kind = tag.type->kind;
    if (kind != ValueKind::Text && kind != ValueKind::WideText) item = trim(item);
    switch (kind) {
    case ValueKind::Bool:
        if (item == "1" || iequals(item, "true") || iequals(item, "on")) return std::vector<uint8_t>{1};
        if (item == "0" || iequals(item, "false") || iequals(item, "off")) return std::vector<uint8_t>{0};
        error = cat("'", item, "' is not a BOOL (use 0/1, true/false or on/off)");
        return std::nullopt;
    case ValueKind::Signed: return encode_integer(item, tag.element_bytes, true, error);
    case ValueKind::Unsigned:
    case ValueKind::Bits: return encode_integer(item, tag.element_bytes, false, error);
    case ValueKind::Real:
        if (tag.element_bytes == 4) return encode_real<float>(item, error);
        return encode_real<double>(item, error);
    case ValueKind::Text:
    case ValueKind::WideText: {
        std::optional<std::vector<uint8_t>> out;
        if (kind == ValueKind::Text) out = std::vector<uint8_t>(item.begin(), item.end());
        else out = encode_wide(item);
        if (!out) {
            error = cat("'", item, "' is not valid UTF-8");
            return std::nullopt;
        }
        if (out->size() > tag.element_bytes) {
            error = cat("text '", item, "' needs ", out->size(), " bytes; '", tag.label, "' holds ", tag.element_bytes);
            return std::nullopt;
        }
        return out;
    }
    }
    error = "unsupported type";
    return std::nullopt;
}

}  // namespace kplc::cli
