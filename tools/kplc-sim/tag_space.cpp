#include "tag_space.hpp"

#include <algorithm>
#include <cstring>

#include "format/device_class.hpp"
#include "format/tag.hpp"
#include "format/types.hpp"
#include "protocol/frame.hpp"

namespace kplc::sim {

namespace {

// Elements of one tag: far beyond any real PLC variable, small enough that a
// bad range column cannot make the simulator allocate gigabytes.
using format::kMaxArrayElements;

using format::written_by_set_reset;

std::string describe(std::size_t id, const kplc_tag_str &rec) {
    return "tag " + std::to_string(id) + " (" + std::string(rec.name, strnlen(rec.name, sizeof rec.name)) + ")";
}

// Subscripts of one bracket group "[#a]", "[#a,#b]" or "[#a,#b,#c]".
struct Subscripts {
    std::array<int32_t, 3> value{};
    std::size_t count = 0;
};

std::optional<Subscripts> parse_group(std::u16string_view group) {
    if (group.size() < 4 || group.front() != u'[' || group.back() != u']') return std::nullopt;
    const std::u16string_view inner = group.substr(1, group.size() - 2);
    Subscripts subs;
    std::size_t pos = 0;
    while (true) {
        if (subs.count == subs.value.size() || pos >= inner.size() || inner[pos] != u'#') return std::nullopt;
        ++pos;
        const bool negative = pos < inner.size() && inner[pos] == u'-';
        if (negative) ++pos;
        int64_t magnitude = 0;
        std::size_t digits = 0;
        while (pos < inner.size() && inner[pos] >= u'0' && inner[pos] <= u'9') {
            magnitude = magnitude * 10 + (inner[pos] - u'0');
            if (++digits > 10) return std::nullopt;
            ++pos;
        }
        const int64_t value = negative ? -magnitude : magnitude;
        if (digits == 0 || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
        subs.value[subs.count++] = static_cast<int32_t>(value);
        if (pos == inner.size()) return subs;
        if (inner[pos] != u',') return std::nullopt;
        ++pos;
    }
}

// Row-major offset of the element that `subs` names, the last index varying fastest.
std::optional<uint64_t> element_offset(const std::vector<Dimension> &dims, const Subscripts &subs) {
    if (subs.count != dims.size()) return std::nullopt;
    uint64_t offset = 0;
    for (std::size_t i = 0; i < dims.size(); ++i) {
        const int32_t index = subs.value[i];
        if (index < dims[i].min || index > dims[i].max) return std::nullopt;
        offset = offset * dims[i].size() + static_cast<uint64_t>(int64_t{index} - dims[i].min);
    }
    return offset;
}

// Array dimensions of a tag. A string names its elements by which upper
// bounds are non-zero (as the driver forms string element names); every other
// array by its shape.
std::vector<Dimension> dimensions_of(const kplc_tag_str &rec) {
    std::vector<Dimension> dims;
    const auto bounds = format::bounds(rec);
    for (unsigned d = 0; d < format::dimensions(rec); ++d)
        dims.push_back({static_cast<int32_t>(bounds[d].min), static_cast<int32_t>(bounds[d].max)});
    return dims;
}

}  // namespace

std::optional<std::u16string> name_to_units(std::string_view utf8) {
    const std::string text(utf8);
    std::array<uint16_t, proto::kMaxNameUnits + 1> units{};
    const auto count = proto::name_units(text.c_str(), units);
    if (!count) return std::nullopt;
    return std::u16string(units.begin(), units.begin() + static_cast<std::ptrdiff_t>(*count));
}

TagSpace::TagSpace(std::string_view text, Memory &memory, std::vector<std::string> &warnings) {
    format::for_each_definition(text, [&](std::string_view line) {
        std::string chunk(line);  // the parser takes a C string
        kplc_tag_str rec{};
        kplc_pase_str(chunk.data(), &rec);
        add(rec, ++definitions_, memory, warnings);
    });
    memory.seal();
}

void TagSpace::add(const kplc_tag_str &rec, std::size_t id, Memory &memory, std::vector<std::string> &warnings) {
    Tag tag{};
    tag.rec = rec;
    auto units = name_to_units(std::string_view(rec.name, strnlen(rec.name, sizeof rec.name)));
    if (!units || units->empty()) {
        warnings.push_back(describe(id, rec) + ": name empty or longer than 255 code units, left out");
        return;
    }
    tag.units = std::move(*units);

    // A program-local tag lives in the scope of its program, whose id is the
    // mode column of the program's first tag.
    tag.scope = kGlobal;
    if (rec.mode_type != kGlobal) {
        const std::string local(reinterpret_cast<const char *>(rec.local_name),
                                strnlen(reinterpret_cast<const char *>(rec.local_name), sizeof rec.local_name));
        auto program = std::find_if(programs_.begin(), programs_.end(), [&](const Program &p) { return p.name == local; });
        if (program == programs_.end()) {
            programs_.push_back(Program{local, name_to_units(local).value_or(u""), static_cast<uint8_t>(rec.mode_type)});
            program = programs_.end() - 1;
        }
        tag.scope = program->id;
    }
    if (scopes_[tag.scope].count(tag.units) != 0) {
        warnings.push_back(describe(id, rec) + ": name already used in its scope, left out");
        return;
    }

    tag.dims = dimensions_of(rec);
    uint64_t elements = 1;
    for (const auto &d : tag.dims) {
        if (d.max < d.min) {
            warnings.push_back(describe(id, rec) + ": array range is empty, left out");
            return;
        }
        elements *= d.size();
        if (elements > kMaxArrayElements) {
            warnings.push_back(describe(id, rec) + ": more than 2^20 elements, left out");
            return;
        }
    }
    tag.elements = static_cast<uint32_t>(elements);
    tag.is_string = rec.attr == STRING;
    tag.is_bool = !tag.is_string && rec.bits == 1;

    std::optional<uint32_t> first;
    if (tag.is_string) {
        // Each element holds its text and its terminator, word aligned, so a
        // read of the element's whole words from any character stays inside it.
        tag.text_bytes = format::string_element_size(rec);
        const uint64_t stride = std::max<uint64_t>(2, (uint64_t{rec.byte_len} + 1) & ~uint64_t{1});
        tag.area = Memory::kTextArea;
        tag.stride = static_cast<uint32_t>(std::min<uint64_t>(stride, Memory::kMaxAreaBytes) * 8);
        first = stride <= Memory::kMaxAreaBytes ? memory.allocate_text(stride * elements) : std::nullopt;
    } else if (tag.is_bool) {
        tag.area = rec.address;
        tag.stride = 1;
        // A BOOL array starts on a word boundary, element e at bit e mod 16 of
        // word e / 16: the array bit write names the bit by the element offset.
        first = tag.dims.empty() ? memory.allocate_bit(tag.area) : memory.allocate_words(tag.area, (elements + 15) / 16);
    } else {
        const uint64_t words = format::memory_words(rec);
        tag.area = rec.address;
        tag.stride = static_cast<uint32_t>(words * 16);
        first = memory.allocate_words(tag.area, words * elements);
    }
    if (!first) {
        warnings.push_back(describe(id, rec) + ": does not fit its memory area, left out");
        return;
    }
    tag.first = *first;
    if (tag.is_bool && written_by_set_reset(tag.area) && tag.first + uint64_t{tag.elements - 1} * tag.stride > 0xFFFF) {
        warnings.push_back(describe(id, rec) + ": lies beyond bit 65535 of its device, set/reset bit cannot reach it");
    }
    scopes_[tag.scope].emplace(tag.units, tags_.size());
    tags_.push_back(std::move(tag));
}

std::optional<Resolved> TagSpace::resolve(int scope, std::string_view utf8_name) const {
    const auto units = name_to_units(utf8_name);
    if (!units) return std::nullopt;
    return resolve(scope, std::u16string_view(*units));
}

std::optional<Resolved> TagSpace::resolve(int scope, std::u16string_view name) const {
    const auto table = scopes_.find(scope);
    if (table == scopes_.end()) return std::nullopt;
    const auto find = [&](std::u16string_view key) -> const Tag * {
        const auto it = table->second.find(std::u16string(key));
        return it == table->second.end() ? nullptr : &tags_[it->second];
    };
    if (const Tag *tag = find(name)) return Resolved{tag, tag->area, tag->first};

    // Otherwise a tag name followed by one or two bracket groups. Tag names may
    // hold brackets themselves (Cell[#1,2].Val), so groups are taken from the end.
    std::array<std::u16string_view, 2> groups;
    std::u16string_view prefix = name;
    for (std::size_t taken = 1; taken <= groups.size(); ++taken) {
        if (prefix.empty() || prefix.back() != u']') return std::nullopt;
        const std::size_t open = prefix.rfind(u'[');
        if (open == std::u16string_view::npos) return std::nullopt;
        // Groups are collected last first; keep them in name order.
        std::move_backward(groups.begin(), groups.begin() + static_cast<std::ptrdiff_t>(taken - 1),
                           groups.begin() + static_cast<std::ptrdiff_t>(taken));
        groups[0] = prefix.substr(open);
        prefix = prefix.substr(0, open);
        if (const Tag *tag = find(prefix)) return element(*tag, std::span(groups).first(taken));
    }
    return std::nullopt;
}

std::optional<Resolved> TagSpace::element(const Tag &tag, std::span<const std::u16string_view> groups) const {
    std::array<Subscripts, 2> subs;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const auto parsed = parse_group(groups[i]);
        if (!parsed) return std::nullopt;
        subs[i] = *parsed;
    }

    uint64_t offset = 0;
    uint64_t character = 0;
    if (tag.is_string) {
        // A single string takes one group, the character. An array of strings
        // takes the element's indices, optionally followed by the character.
        const bool single = tag.dims.empty();
        if (single ? groups.size() != 1 || subs[0].count != 1 : groups.size() == 2 && subs[1].count != 1) {
            return std::nullopt;
        }
        if (!single) {
            const auto e = element_offset(tag.dims, subs[0]);
            if (!e) return std::nullopt;
            offset = *e;
        }
        const int32_t c = single ? subs[0].value[0] : groups.size() == 2 ? subs[1].value[0] : 0;
        if (c < 0 || (c > 0 && static_cast<uint32_t>(c) >= tag.text_bytes)) return std::nullopt;
        character = static_cast<uint64_t>(c);
    } else {
        if (tag.dims.empty() || groups.size() != 1) return std::nullopt;
        const auto e = element_offset(tag.dims, subs[0]);
        if (!e) return std::nullopt;
        offset = *e;
    }

    Resolved r{&tag, tag.area, static_cast<uint32_t>(tag.first + offset * tag.stride + character * 8)};
    for (std::size_t g = 0; g < groups.size(); ++g) {
        for (std::size_t i = 0; i < subs[g].count; ++i) r.subscripts[r.subscript_count++] = subs[g].value[i];
    }
    return r;
}

}  // namespace kplc::sim
