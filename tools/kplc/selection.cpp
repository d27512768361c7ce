#include "selection.hpp"

#include <charconv>
#include <vector>

#include "text.hpp"

namespace kplc::cli {
namespace {

struct Span {
    int64_t lo, hi;
};

std::optional<int64_t> number(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '#')) s.remove_prefix(1);
    while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
    int64_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc{} || end != s.data() + s.size()) return std::nullopt;
    return v;
}

// "1, 0..2" or "1][0..2" into one span per index.
std::optional<std::vector<Span>> spans_of(std::string_view text) {
    std::vector<Span> out;
    std::string flat;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ']' && i + 1 < text.size() && text[i + 1] == '[') {
            flat += ',';
            ++i;
        } else {
            flat += text[i];
        }
    }
    std::string_view rest = flat;
    while (true) {
        const std::size_t comma = rest.find(',');
        const std::string_view item = rest.substr(0, comma);
        const std::size_t dots = item.find("..");
        const auto lo = number(item.substr(0, dots));
        const auto hi = dots == std::string_view::npos ? lo : number(item.substr(dots + 2));
        if (!lo || !hi) return std::nullopt;
        out.push_back({*lo, *hi});
        if (comma == std::string_view::npos) return out;
        rest.remove_prefix(comma + 1);
    }
}

}  // namespace

Lookup find_selection(const TagSet &tags, std::string_view query) {
    Lookup direct = tags.find(query);
    if (direct.selection || query.empty() || query.back() != ']') return direct;

    // The last bracket group, or the last two ("Grid[1][0..2]"), hold the spans.
    for (std::size_t open = query.rfind('['); open != std::string_view::npos && open > 0;
         open = query.rfind('[', open - 1)) {
        const Lookup base = tags.find(query.substr(0, open));
        if (!base.selection || !base.selection->whole) continue;
        const Tag &tag = tags.tags()[base.selection->tag];
        const Shape &shape = *tag.shape;
        const auto spans = spans_of(query.substr(open + 1, query.size() - open - 2));
        if (!spans || shape.dims == 0) return direct;
        if (spans->size() > shape.dims)
            return {std::nullopt, cat("tag '", tag.label, "' has ", shape.dims, " dimension(s), '", query, "' gives ",
                                      spans->size(), " index(es)")};
        uint64_t first = 0, count = 1;
        bool ranged = false;
        for (unsigned d = 0; d < shape.dims; ++d) {
            Span s = d < spans->size() ? (*spans)[d] : Span{shape.lo[d], shape.hi[d]};
            if (s.hi < s.lo) return {std::nullopt, cat("range ", s.lo, "..", s.hi, " of '", query, "' is reversed")};
            if (s.lo < shape.lo[d] || s.hi > shape.hi[d])
                return {std::nullopt, cat("'", query, "' reaches outside ", shape.lo[d], "..", shape.hi[d])};
            const bool full = s.lo == shape.lo[d] && s.hi == shape.hi[d];
            // After a partial range every later index must run in full, or the
            // elements are not one run.
            if (ranged && !full) return {std::nullopt, cat("'", query, "' is not one run of elements")};
            if (s.hi != s.lo) ranged = true;
            first = first * shape.size[d] + static_cast<uint64_t>(s.lo - shape.lo[d]);
            count *= static_cast<uint64_t>(s.hi - s.lo + 1);
        }
        Selection sel{base.selection->tag, static_cast<uint32_t>(first), static_cast<uint32_t>(count), false,
                      std::string(query)};
        return {std::move(sel), {}};
    }
    return direct;
}

}  // namespace kplc::cli
