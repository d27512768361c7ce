#include "tag_set.hpp"

#include "text.hpp"

#include "format/tag.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace kplc::cli {
namespace {

using format::kMaxArrayElements;

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// The form names are compared in: the driver's '#' markers dropped, "][" read
// as "," (the parser joins index groups the same way), no blanks.
std::string normalised(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '#' || s[i] == ' ') continue;
        if (s[i] == ']' && i + 1 < s.size() && s[i + 1] == '[') {
            out.push_back(',');
            ++i;
            continue;
        }
        out.push_back(s[i]);
    }
    return out;
}

std::optional<Shape> shape_of(const kplc_tag_str &r, bool string_shape) {
    Shape shape;
    shape.dims = string_shape ? format::string_dimensions(r) : format::shape_dimensions(r.attr);
    const auto bounds = format::bounds(r);
    uint64_t elements = 1;
    for (unsigned d = 0; d < shape.dims; ++d) {
        // Bounds were read with %d: the stored words are two's complement.
        shape.lo[d] = static_cast<int32_t>(bounds[d].min);
        shape.hi[d] = static_cast<int32_t>(bounds[d].max);
        if (shape.hi[d] < shape.lo[d]) return std::nullopt;
        const uint64_t size = static_cast<uint64_t>(static_cast<int64_t>(shape.hi[d]) - shape.lo[d] + 1);
        elements *= size;
        if (elements > kMaxArrayElements) return std::nullopt;
        shape.size[d] = static_cast<uint32_t>(size);
    }
    shape.elements = static_cast<uint32_t>(elements);
    return shape;
}

uint32_t element_bytes_of(const kplc_tag_str &r, const TypeInfo *type) {
    if (type == nullptr) return 0;
    if (r.bits != 0) return format::value_bytes(r.bits);
    if (r.attr != STRING) return r.byte_len;  // a text type without a string shape: raw bytes
    return format::string_element_size(r);
}

// Indices of element `e` in row-major order, as the driver names it.
std::array<int32_t, 3> indices_of(const Tag &tag, uint32_t e) {
    std::array<int32_t, 3> idx{};
    if (!tag.shape) return idx;
    if (const auto u = format::row_major_indices(tag.rec, tag.shape->dims, e))
        for (unsigned d = 0; d < 3; ++d) idx[d] = static_cast<int32_t>((*u)[d]);
    return idx;
}

// Parses "1,2" / "#1,#2" / "1][2" (already split off its outer brackets).
std::optional<std::vector<int64_t>> parse_indices(std::string_view text) {
    std::vector<int64_t> out;
    const std::string flat = normalised(text);
    std::string_view rest = flat;
    while (true) {
        const std::size_t comma = rest.find(',');
        std::string_view item = rest.substr(0, comma);
        if (item.empty()) return std::nullopt;
        int64_t value = 0;
        const char *begin = item.data();
        if (*begin == '+') ++begin;
        auto [end, ec] = std::from_chars(begin, item.data() + item.size(), value);
        if (ec != std::errc{} || end != item.data() + item.size()) return std::nullopt;
        out.push_back(value);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return out;
}

}  // namespace

std::vector<std::string> definition_lines(std::string_view contents) {
    std::vector<std::string> lines;
    format::for_each_definition(contents, [&](std::string_view line) { lines.emplace_back(line); });
    return lines;
}

TagSet TagSet::parse(std::string_view contents, ParseLine parser) {
    TagSet set;
    const std::vector<std::string> lines = definition_lines(contents);
    set.tags_.reserve(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        Tag tag;
        std::string line = lines[i];  // the parser takes a mutable line
        parser(line.data(), &tag.rec);
        tag.rec.name[sizeof tag.rec.name - 1] = '\0';
        tag.rec.local_name[sizeof tag.rec.local_name - 1] = '\0';
        tag.id = static_cast<uint16_t>(i + 1);
        tag.type = type_info(tag.rec.type);
        tag.shape = shape_of(tag.rec, tag.rec.attr == STRING);
        if (tag.is_text() && tag.rec.attr != STRING) tag.shape = Shape{};  // read as one raw element
        tag.element_bytes = element_bytes_of(tag.rec, tag.type);
        const std::string_view name(tag.rec.name);
        const auto *local = reinterpret_cast<const char *>(tag.rec.local_name);
        std::string label;
        if (tag.is_local() && *local != '\0') label = cat(local, ".");
        for (char c : name)
            if (c != '#') label.push_back(c);
        tag.label = std::move(label);
        set.tags_.push_back(std::move(tag));
    }
    return set;
}

std::optional<std::size_t> TagSet::find_base(std::string_view query) const {
    query = trim(query);
    if (query.empty()) return std::nullopt;
    if (std::all_of(query.begin(), query.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        unsigned long id = 0;
        auto [end, ec] = std::from_chars(query.data(), query.data() + query.size(), id);
        if (ec != std::errc{} || id < 1 || id > tags_.size()) return std::nullopt;
        return id - 1;
    }
    for (std::size_t i = 0; i < tags_.size(); ++i)
        if (tags_[i].label == query) return i;
    const std::string want = normalised(query);
    for (std::size_t i = 0; i < tags_.size(); ++i)
        if (normalised(tags_[i].label) == want) return i;
    return std::nullopt;
}

Lookup TagSet::find(std::string_view query) const {
    query = trim(query);
    if (auto base = find_base(query)) {
        const Tag &tag = tags_[*base];
        if (!tag.shape) return {std::nullopt, cat("tag '", tag.label, "' has array bounds that cannot be addressed")};
        return {Selection{*base, 0, tag.shape->elements, true, tag.label}, {}};
    }
    // Peel index groups off the end until the rest names a tag: "Grid[1][2]"
    // tries "Grid[1]" with [2], then "Grid" with [1][2].
    std::string_view rest = query;
    std::string groups;
    std::optional<std::size_t> base;
    while (!base && rest.size() > 2 && rest.back() == ']') {
        const std::size_t open = rest.rfind('[');
        if (open == std::string_view::npos || open == 0) break;
        const std::string_view inner = rest.substr(open + 1, rest.size() - open - 2);
        groups = groups.empty() ? std::string(inner) : cat(inner, ",", groups);
        rest = rest.substr(0, open);
        base = find_base(rest);
    }
    if (!base) return {std::nullopt, cat("unknown tag '", query, "' (see 'kplc list')")};

    const Tag &tag = tags_[*base];
    if (!tag.shape) return {std::nullopt, cat("tag '", tag.label, "' has array bounds that cannot be addressed")};
    const Shape &shape = *tag.shape;
    if (shape.dims == 0) return {std::nullopt, cat("tag '", tag.label, "' is not an array: '", query, "'")};
    const auto indices = parse_indices(groups);
    if (!indices) return {std::nullopt, cat("bad index in '", query, "'")};
    if (indices->size() != shape.dims)
        return {std::nullopt, cat("tag '", tag.label, "' has ", shape.dims, " dimension(s), '", query, "' gives ",
                                  indices->size(), " index(es)")};
    uint64_t offset = 0;
    for (unsigned d = 0; d < shape.dims; ++d) {
        const int64_t i = (*indices)[d];
        if (i < shape.lo[d] || i > shape.hi[d])
            return {std::nullopt,
                    cat("index ", i, " of '", query, "' is outside ", shape.lo[d], "..", shape.hi[d])};
        offset = offset * shape.size[d] + static_cast<uint64_t>(i - shape.lo[d]);
    }
    const auto e = static_cast<uint32_t>(offset);
    return {Selection{*base, e, 1, false, element_label(tag, e)}, {}};
}

std::string element_label(const Tag &tag, uint32_t e) {
    if (!tag.shape || tag.shape->dims == 0) return tag.label;
    const auto idx = indices_of(tag, e);
    std::string out = tag.label + "[";
    for (unsigned d = 0; d < tag.shape->dims; ++d) {
        if (d != 0) out += ",";
        out += std::to_string(idx[d]);
    }
    return out + "]";
}

std::string shape_text(const Tag &tag) {
    if (!tag.shape) return "invalid";
    if (tag.shape->dims == 0) return "-";
    std::string out = "[";
    for (unsigned d = 0; d < tag.shape->dims; ++d) {
        if (d != 0) out += ", ";
        out += cat(tag.shape->lo[d], "..", tag.shape->hi[d]);
    }
    return out + "]";
}

std::string type_text(const Tag &tag) {
    if (tag.type == nullptr) return "?";
    std::string out(tag.type->name);
    if (tag.is_text() && tag.is_string_shape()) {
        const uint32_t chars = tag.type->kind == ValueKind::WideText ? tag.element_bytes / 2 : tag.element_bytes;
        out += cat("(", chars, ")");
    }
    return out;
}

uint32_t read_name_cost(const Tag &tag, uint32_t e) {
    // A request starts at an element, so a string's first chunk names character 0.
    const std::size_t chars = std::strlen(tag.rec.name) + (tag.shape ? format::suffix_chars(tag.rec, e).value_or(0) : 0);
    return static_cast<uint32_t>(format::symbol_entry_bytes(chars));
}

}  // namespace kplc::cli
