// The line parser of tag definition files: one comma-separated line becomes
// one kplc_tag_str.
//
// Columns: id, symbol, type, range, byte length, (unused), device, mode. A
// two-index symbol such as Axis[2,3] is split by its own comma; the parser
// notices because the third column then is no type name, joins it back into
// the symbol and reads every later column one place to the right.
//
// The line is walked once, front to back: each column is read where it
// stands (numbers scanned, the symbol copied into the record as it is
// rewritten) and the walk goes on from where that reading stopped to the
// column's ',' or the line's end. A column ends at ',' or at the zero byte
// that ends the text; nothing after a zero byte is looked at.
#include <array>
#include <cstddef>
#include <cstdint>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "format/tag_geometry.hpp"
#include "format/types.hpp"
#include "kplc/tags.h"
#include "tags/device_class.hpp"
#include "tags/tag_name.hpp"

namespace {

// Columns are read through bounded windows; a longer column is read as its
// first characters only:
// - range: the bounds and '_' separators are taken from the first 99;
// - device: the mnemonics are searched in the first 23;
// - length and mode: numbers are read from the first 7, which holds every
//   byte length up to 9,999,999 and every program number.
constexpr std::size_t kRangeColumn = 99;
constexpr std::size_t kDeviceColumn = 23;
constexpr std::size_t kNumberColumn = 7;
constexpr std::size_t kUnbounded = SIZE_MAX;

// What each character is to the parser, a bit per role, so that a loop over
// a column tests one table entry per character.
constexpr uint8_t kEnd = 1;    // ',' or the zero byte: ends a column
constexpr uint8_t kDot = 2;    // '.': the name has a program or member part
constexpr uint8_t kClose = 4;  // ']'
constexpr uint8_t kOpen = 8;   // '['
constexpr std::array<uint8_t, 256> kRole = [] {
    std::array<uint8_t, 256> role{};
    role[','] = role[0] = kEnd;
    role['.'] = kDot;
    role[']'] = kClose;
    role['['] = kOpen;
    return role;
}();
constexpr uint8_t role(char c) noexcept { return kRole[static_cast<unsigned char>(c)]; }

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool ends_column(char c) noexcept { return (role(c) & kEnd) != 0; }

// Where the walk stands: `at` is the next unread character; `open` says that
// the line still has a column there (false once the last column, the one the
// zero byte ends, has been passed).
struct Walk {
    const char *at;
    bool open;

    // Moves past the current column's end; after the last column the line has
    // no more columns.
    void finish_column() noexcept {
        while (!ends_column(*at)) ++at;
        if (*at == ',') ++at;
        else open = false;
    }
    // The current column's text, the walk moved past it.
    std::string_view cut() noexcept {
        const char *start = at;
        while (!ends_column(*at)) ++at;
        const std::string_view column(start, static_cast<std::size_t>(at - start));
        if (*at == ',') ++at;
        else open = false;
        return column;
    }
    // True when the line has a column here and it holds at least one character.
    bool non_empty() const noexcept { return open && !ends_column(*at); }
};

// Reads a decimal number at s[i], among the first `limit` characters of the
// column at s, the way a "%d" conversion does: leading white space (skipped
// only when the first character is no digit), an optional sign, at least one
// digit. The value wraps modulo 2^32, the two's complement of every int.
// Stops at the first character that does not fit, so it never passes a ','
// or the zero byte. On success `i` is past the number.
inline bool scan_decimal(const char *s, std::size_t limit, std::size_t &i, uint32_t &value) noexcept {
    std::size_t k = i;
    if (k < limit && !is_digit(s[k])) {
        const auto is_space = [](char c) {
            return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
        };
        while (k < limit && is_space(s[k])) ++k;
    }
    bool negative = false;
    if (k < limit && (s[k] == '+' || s[k] == '-')) negative = s[k++] == '-';
    if (k >= limit || !is_digit(s[k])) return false;
    uint32_t v = 0;
    for (; k < limit && is_digit(s[k]); ++k) v = v * 10u + static_cast<uint32_t>(s[k] - '0');
    value = negative ? 0u - v : v;
    i = k;
    return true;
}

// Matches `c` at s[i] among the first `limit` characters.
inline bool take(const char *s, std::size_t limit, std::size_t &i, char c) noexcept {
    if (i >= limit || s[i] != c) return false;
    ++i;
    return true;
}

bool is_string_type(uint16_t code) noexcept { return code == kplc::format::kString || code == kplc::format::kWString; }

// Type names packed for comparison: the first eight characters, one byte
// each from the lowest up, and the length. Only a name longer than eight
// characters needs its remaining characters compared.
struct TypeKey {
    uint64_t head;
    std::size_t size;
};
constexpr std::size_t kKeyChars = 8;
constexpr std::array<TypeKey, kplc::format::kTypes.size()> kTypeKeys = [] {
    std::array<TypeKey, kplc::format::kTypes.size()> keys{};
    for (std::size_t r = 0; r < keys.size(); ++r) {
        const std::string_view name = kplc::format::kTypes[r].name;
        for (std::size_t i = 0; i < name.size() && i < kKeyChars; ++i)
            keys[r].head |= uint64_t{static_cast<unsigned char>(name[i])} << (8 * i);
        keys[r].size = name.size();
    }
    return keys;
}();

// The type named by the column at the walk, the walk moved past it; the
// column is packed as it is walked. Returns the type code, 0 when the column
// names no type.
uint16_t read_type(Walk &walk, kplc_tag_str &tag) noexcept {
    const char *s = walk.at;
    uint64_t head = 0;
    std::size_t len = 0;
    for (char c; !ends_column(c = s[len]); ++len)
        if (len < kKeyChars) head |= uint64_t{static_cast<unsigned char>(c)} << (8 * len);
    walk.at = s + len;
    walk.finish_column();
    if (len == 0) return 0;
    // Names are unique, so at most one row matches; only the rows that start
    // with the column's first character are tried.
    for (uint32_t rows = kplc::format::kTypesStartingWith[static_cast<unsigned char>(s[0])]; rows != 0;
         rows &= rows - 1) {
        const auto r = static_cast<std::size_t>(std::countr_zero(rows));
        if (kTypeKeys[r].head != head || kTypeKeys[r].size != len) continue;
        const kplc::format::TypeRow &row = kplc::format::kTypes[r];
        if (len > kKeyChars && std::memcmp(row.name + kKeyChars, s + kKeyChars, len - kKeyChars) != 0) continue;
        tag.type = row.code;
        tag.bits = row.bits;
        tag.attr = NORMAL;
        return row.code;
    }
    return 0;
}

// Bounds "[a..b]", "[a..b_c..d]" or "[a..b_c..d_e..f]". The number of '_'
// separators among the column's first 99 characters gives the dimensions;
// anything other than one or two is read as a single dimension. Bounds are
// stored as they are matched; those the match does not reach keep their
// values.
void read_range(Walk &walk, kplc_tag_str &tag) noexcept {
    const char *s = walk.at;
    std::size_t underscores = 0;
    std::size_t len = 0;
    for (; !ends_column(s[len]); ++len) underscores += len < kRangeColumn && s[len] == '_';
    walk.at = s + len;
    walk.finish_column();

    std::size_t want;
    if (underscores == 2) {
        tag.attr = ARRAY3;
        want = 6;
    } else if (underscores == 1) {
        tag.attr = ARRAY2;
        want = 4;
    } else {
        tag.attr = ARRAY;
        want = 2;
    }
    const std::size_t limit = len < kRangeColumn ? len : kRangeColumn;
    uint32_t *bounds[] = {&tag.ar_min, &tag.ar_max, &tag.ar1_min, &tag.ar1_max, &tag.ar2_min, &tag.ar2_max};
    std::size_t i = 0;
    if (!take(s, limit, i, '[')) return;
    for (std::size_t b = 0; b < want; ++b) {
        // Between bounds: ".." inside a dimension, '_' between dimensions.
        if (b % 2 == 1 && !(take(s, limit, i, '.') && take(s, limit, i, '.'))) return;
        if (b != 0 && b % 2 == 0 && !take(s, limit, i, '_')) return;
        if (!scan_decimal(s, limit, i, *bounds[b])) return;
    }
}

void read_length(Walk &walk, uint16_t type, kplc_tag_str &tag) noexcept {
    // The range may have made a string tag an array; the string shape wins,
    // the bounds stay.
    if (is_string_type(type)) tag.attr = STRING;
    std::size_t i = 0;
    (void)scan_decimal(walk.at, kNumberColumn, i, tag.byte_len);
    walk.at += i;
    walk.finish_column();

    // The file gives the length of the whole array; the record keeps the
    // length of one element plus its terminator (one byte for STRING, one
    // UTF-16 unit for WSTRING). A count that wrapped to 0 divides nothing.
    if (type == kplc::format::kString) {
        const uint32_t n = kplc::format::declared_elements(tag);
        if (n != 0) tag.byte_len /= n;
        tag.byte_len += kplc::format::terminator_bytes(kplc::format::kString);
    } else if (type == kplc::format::kWString) {
        const uint32_t n = kplc::format::declared_elements(tag);
        if (n != 0) {
            tag.byte_len /= n;
            std::printf("tag wstring size(%d)\r\n", static_cast<int>(tag.byte_len));
        }
        tag.byte_len += kplc::format::terminator_bytes(kplc::format::kWString);
    }
}

void read_mode(Walk &walk, kplc_tag_str &tag) noexcept {
    std::size_t i = 0;
    uint32_t value = 0;
    if (scan_decimal(walk.at, kNumberColumn, i, value)) tag.mode_type = static_cast<int32_t>(value);
    if (tag.mode_type == -1) return;  // a global variable keeps its whole name
    kplc::split_program_prefix(tag);
    tag.var_type = kplc::name_class(kplc::stored_name(tag.name));
}

// Name class from the roles of the name's characters: 1 without '.', 2 with
// '.' but no ']', 3 with both.
constexpr uint8_t name_class_of(uint8_t roles) noexcept {
    return (roles & kDot) == 0 ? 1 : (roles & kClose) == 0 ? 2 : 3;
}

// The symbol column (non-empty) written into the record's name as it is
// walked: "][" becomes "," (Cell[1][2] -> Cell[1,2]) and every '[' after the
// first character is followed by '#', the PLC's index marker (Cell[#1,2],
// Arr[#3]). A name over 255 characters does not fit and leaves the field
// empty, so that the tag cannot address some other, shorter variable; the
// walk still goes to the column's end. Returns the name's length, or
// kUnbounded when it did not fit; `bits` gets the roles of its characters.
std::size_t write_symbol(Walk &walk, char (&name)[kplc::kNameCapacity + 1], uint8_t &bits) noexcept {
    constexpr std::size_t cap = kplc::kNameCapacity;
    const char *s = walk.at;
    std::size_t i = 0;
    uint8_t seen = 0;
    // Up to the first bracket nothing is rewritten: copied as it stands. A
    // plain part longer than the field fills it and is then emptied.
    for (uint8_t r; ((r = role(s[i])) & (kEnd | kOpen | kClose)) == 0 && i < cap; ++i) {
        name[i] = s[i];
        seen |= r;
    }
    while ((role(s[i]) & (kEnd | kOpen | kClose)) == 0) ++i;
    std::size_t len = i;
    bool fits = len <= cap;
    // One pass does both rewrites: joining "][" into "," can never form a
    // new "][", and a '[' gets its '#' by its place in the joined name. At
    // most two characters go out per character in, the last one a '#' that
    // needs room of its own.
    for (char c; fits && !ends_column(c = s[i]); ++i) {
        if (len == cap) {
            fits = false;
            break;
        }
        if (c == ']' && s[i + 1] == '[') {
            name[len++] = ',';
            ++i;
        } else {
            name[len++] = c;
            seen |= role(c);
            if (c == '[' && len != 1) {
                if (len == cap) {
                    fits = false;
                    break;
                }
                name[len++] = '#';
            }
        }
    }
    walk.at = s + i;
    walk.finish_column();
    if (!fits) {
        name[0] = '\0';
        bits = 0;
        return kUnbounded;
    }
    name[len] = '\0';
    bits = seen;
    return len;
}

// Appends ",#" and the column at the walk, the part of a two-index name
// (Axis[2,3]) that the comma split off, to a name of `len` characters. A
// result over 255 characters leaves the name empty.
void append_name_rest(Walk &walk, char (&name)[kplc::kNameCapacity + 1], std::size_t len, uint8_t &bits) noexcept {
    const std::string_view rest = walk.cut();
    if (rest.size() > kplc::kNameCapacity - len || kplc::kNameCapacity - len - rest.size() < 2) {
        name[0] = '\0';
        bits = 0;
        return;
    }
    char *end = name + len;
    *end++ = ',';
    *end++ = '#';
    for (const char c : rest) bits |= role(c);
    std::memcpy(end, rest.data(), rest.size());
    end[rest.size()] = '\0';
}

void parse_line(Walk walk, kplc_tag_str &tag) noexcept {
    tag.id = 0;
    if (walk.non_empty()) {
        std::size_t i = 0;
        uint32_t value = 0;
        if (scan_decimal(walk.at, kUnbounded, i, value)) tag.id = static_cast<uint16_t>(value);
        walk.at += i;
    }
    if (walk.open) walk.finish_column();

    // An empty or absent symbol leaves the name field as it was.
    const bool has_symbol = walk.non_empty();
    std::size_t name_len = kUnbounded;
    uint8_t bits = 0;
    if (has_symbol) name_len = write_symbol(walk, tag.name, bits);
    else if (walk.open) walk.finish_column();

    uint16_t type = 0;
    // A line that ends before column 3 has nothing to join.
    if (walk.open) {
        const char *third = walk.at;
        type = read_type(walk, tag);
        // No type in column 3: it is the rest of a two-index symbol and the
        // type follows.
        if (type == 0 && has_symbol) {
            if (name_len != kUnbounded) {
                walk.at = third;
                walk.open = true;
                append_name_rest(walk, tag.name, name_len, bits);
            }
            if (walk.open) type = read_type(walk, tag);
        }
    }

    tag.var_type = has_symbol ? name_class_of(bits) : kplc::name_class(kplc::stored_name(tag.name));

    if (walk.non_empty()) read_range(walk, tag);
    else if (walk.open) walk.finish_column();
    if (walk.non_empty()) read_length(walk, type, tag);
    else if (walk.open) walk.finish_column();
    // The sixth column carries nothing but re-asserts the string shape.
    if (walk.non_empty() && is_string_type(type)) tag.attr = STRING;
    if (walk.open) walk.finish_column();

    // The last column still holds the line feed, which counts towards the
    // device text's length when the device column is the last one.
    if (!walk.open) {
        tag.address = kplc::kNoDevice;
    } else {
        const std::string_view device = walk.cut();
        tag.address = kplc::device_class(device.substr(0, kDeviceColumn));
    }

    if (walk.non_empty()) read_mode(walk, tag);
}

}  // namespace

extern "C" {

KPLC_API int kplc_pase_str(char *str, kplc_tag_str *tag) {
    if (tag == nullptr) return 0;
    // The line is read where it stands and never written. A missing text has
    // no columns at all: id 0, name class 1, no device.
    static const char kNoText[] = "";
    parse_line(Walk{str != nullptr ? str : kNoText, str != nullptr}, *tag);
    return 0;
}

}  // extern "C"
