// The line parser of tag definition files: one comma-separated line becomes
// one kplc_tag_str.
//
// Columns: id, symbol, type, range, byte length, (unused), device, mode. A
// two-index symbol such as Axis[2,3] is split by its own comma; the parser
// notices because the third column then is no type name, joins it back into
// the symbol and reads every later column one place to the right.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "format/types.hpp"
#include "kplc/tags.h"
#include "tags/device_class.hpp"
#include "tags/field_scan.hpp"
#include "tags/tag_name.hpp"

namespace {

using kplc::scan_decimal;
using kplc::scan_pattern;

// Column texts are read through bounded working copies; a longer column is
// truncated to its first characters, never copied whole:
// - type: no type name is near 99 characters, so a longer column names no type;
// - range: the bounds and '_' separators are taken from the first 99;
// - device: the mnemonics are searched in the first 23;
// - length, sixth and mode: numbers are read from the first 7, which holds
//   every byte length up to 9,999,999 and every program number.
constexpr std::size_t kTypeColumn = 99;
constexpr std::size_t kRangeColumn = 99;
constexpr std::size_t kDeviceColumn = 23;
constexpr std::size_t kNumberColumn = 7;

// A column of the line; absent (nullopt) once the line has run out of columns.
using Column = std::optional<std::string_view>;

std::string_view working_copy(std::string_view column, std::size_t limit) noexcept { return column.substr(0, limit); }

bool non_empty(const Column &column) noexcept { return column && !column->empty(); }

// The text of a column looked up as a type, and the row it names (if any).
struct TypeColumn {
    std::string_view text;
    bool found = false;
    uint16_t code = 0;
};

void look_up_type(std::string_view column, kplc_tag_str &tag, TypeColumn &type) noexcept {
    type.text = working_copy(column, kTypeColumn);
    if (const auto *row = kplc::format::type_named(type.text)) {
        tag.type = row->code;
        type.code = row->code;
        tag.bits = row->bits;
        tag.attr = NORMAL;
        type.found = true;
    }
}

bool is_string_type(uint16_t code) noexcept { return code == kplc::format::kString || code == kplc::format::kWString; }

void read_range(std::string_view column, kplc_tag_str &tag) noexcept {
    const std::string_view range = working_copy(column, kRangeColumn);
    std::array<uint32_t, 6> bounds{tag.ar_min, tag.ar_max, tag.ar1_min, tag.ar1_max, tag.ar2_min, tag.ar2_max};
    std::size_t want;
    // The number of '_' separators gives the dimensions; anything other than
    // one or two is read as a single dimension.
    switch (std::count(range.begin(), range.end(), '_')) {
        case 2:
            tag.attr = ARRAY3;
            want = 6;
            scan_pattern(range, "[%d..%d_%d..%d_%d..%d]", bounds);
            break;
        case 1:
            tag.attr = ARRAY2;
            want = 4;
            scan_pattern(range, "[%d..%d_%d..%d]", std::span(bounds).first(4));
            break;
        default:
            tag.attr = ARRAY;
            want = 2;
            scan_pattern(range, "[%d..%d]", std::span(bounds).first(2));
            break;
    }
    // Bounds a conversion did not reach keep their values.
    uint32_t *fields[] = {&tag.ar_min, &tag.ar_max, &tag.ar1_min, &tag.ar1_max, &tag.ar2_min, &tag.ar2_max};
    for (std::size_t i = 0; i < want; ++i) *fields[i] = bounds[i];
}

// Element count of an array tag: each dimension with a non-zero upper bound
// contributes (max - min + 1), in unsigned 32-bit arithmetic; when the first
// dimension is absent the count is 0.
uint32_t element_count(const kplc_tag_str &tag) noexcept {
    uint32_t n = 0;
    if (tag.ar_max != 0) n = tag.ar_max - tag.ar_min + 1;
    if (tag.ar1_max != 0) n *= tag.ar1_max - tag.ar1_min + 1;
    if (tag.ar2_max != 0) n *= tag.ar2_max - tag.ar2_min + 1;
    return n;
}

void read_length(std::string_view column, uint16_t type, kplc_tag_str &tag) noexcept {
    // The range may have made a string tag an array; the string shape wins,
    // the bounds stay.
    if (is_string_type(type)) tag.attr = STRING;
    std::string_view text = working_copy(column, kNumberColumn);
    if (const auto value = scan_decimal(text)) tag.byte_len = *value;

    // The file gives the length of the whole array; the record keeps the
    // length of one element plus its terminator (one byte for STRING, one
    // UTF-16 unit for WSTRING). A count that wrapped to 0 divides nothing.
    const uint32_t n = element_count(tag);
    if (type == kplc::format::kString) {
        if (n != 0) tag.byte_len /= n;
        tag.byte_len += 1;
    } else if (type == kplc::format::kWString) {
        if (n != 0) {
            tag.byte_len /= n;
            std::printf("tag wstring size(%d)\r\n", static_cast<int>(tag.byte_len));
        }
        tag.byte_len += 2;
    }
}

void read_mode(std::string_view column, kplc_tag_str &tag) noexcept {
    std::string_view text = working_copy(column, kNumberColumn);
    if (const auto value = scan_decimal(text)) tag.mode_type = static_cast<int32_t>(*value);
    if (tag.mode_type == -1) return;  // a global variable keeps its whole name
    kplc::split_program_prefix(tag);
    tag.var_type = kplc::name_class(kplc::stored_name(tag.name));
}

// Columns are cut out of the line where they stand, without copying it:
// each is the text up to the next ',' (or the rest of the line), and after
// the last one the line has no more columns. nullopt `line`: no columns at all.
void parse_columns(std::optional<std::string_view> line, kplc_tag_str &tag) noexcept {
    auto next_column = [&line]() -> Column {
        if (!line) return std::nullopt;
        const std::string_view rest = *line;
        // Columns are a few characters long: a plain scan beats a library call.
        std::size_t comma = 0;
        while (comma < rest.size() && rest[comma] != ',') ++comma;
        if (comma == rest.size()) {
            line.reset();
            return rest;
        }
        line = rest.substr(comma + 1);
        return rest.substr(0, comma);
    };

    const Column id = next_column();
    tag.id = 0;
    if (non_empty(id)) {
        std::string_view text = *id;
        if (const auto value = scan_decimal(text)) tag.id = static_cast<uint16_t>(*value);
    }

    const Column symbol = next_column();
    // A symbol that does not fit the record's name field leaves it empty, so
    // that the tag cannot address some other, shorter variable; the column
    // layout still follows from the symbol being there.
    const bool has_symbol = non_empty(symbol);
    const bool name_fits = has_symbol && kplc::rewrite_symbol(tag.name, *symbol);

    TypeColumn type;
    const Column third = next_column();
    if (non_empty(third)) look_up_type(*third, tag, type);
    // No type in column 3: it is the rest of a two-index symbol and the type
    // follows. A line that ends before column 3 has nothing to join.
    if (!type.found && has_symbol && third) {
        if (name_fits) kplc::append_name_rest(tag.name, *third);
        const Column type_column = next_column();
        if (non_empty(type_column)) look_up_type(*type_column, tag, type);
    }

    tag.var_type = kplc::name_class(kplc::stored_name(tag.name));

    if (const Column range = next_column(); non_empty(range)) read_range(*range, tag);
    if (const Column length = next_column(); non_empty(length)) read_length(*length, type.code, tag);
    // The sixth column carries nothing but re-asserts the string shape.
    if (const Column sixth = next_column(); non_empty(sixth) && is_string_type(type.code)) tag.attr = STRING;

    // The last column still holds the line feed, which counts towards the
    // device text's length when the device column is the last one.
    const Column device = next_column();
    tag.address = !device ? uint8_t{kplc::kNoDevice} : kplc::device_class(working_copy(*device, kDeviceColumn));

    if (const Column mode = next_column(); non_empty(mode)) read_mode(*mode, tag);
}

}  // namespace

extern "C" {

KPLC_API int kplc_pase_str(char *str, kplc_tag_str *tag) {
    if (tag == nullptr) return 0;
    // The line is read where it stands and never written, so it is left as it
    // was without a private copy. A missing text has no columns at all: id 0,
    // name class 1, no device.
    std::optional<std::string_view> line;
    if (str != nullptr) line = std::string_view(str);
    parse_columns(line, *tag);
    return 0;
}

}  // extern "C"
