#include "check.hpp"

#include <algorithm>
#include <cstdio>
#include <map>

#include "capability.hpp"
#include "format/tag_lines.hpp"
#include "text.hpp"

namespace kplc::cli {
namespace {

constexpr std::size_t kLineChars = format::kChunkChars;

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    while (true) {
        const std::size_t at = s.find(sep);
        out.push_back(s.substr(0, at));
        if (at == std::string_view::npos) return out;
        s.remove_prefix(at + 1);
    }
}

bool is_number(std::string_view s) {
    if (!s.empty() && s.front() == '-') s.remove_prefix(1);
    return !s.empty() && s.size() <= 10 && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "[lo..hi]", "[lo..hi_lo..hi]" or "[lo..hi_lo..hi_lo..hi]"; false for anything else.
bool bounds_well_formed(std::string_view range) {
    if (range.size() < 2 || range.front() != '[' || range.back() != ']') return false;
    const auto dims = split(range.substr(1, range.size() - 2), '_');
    if (dims.size() > 3) return false;
    return std::all_of(dims.begin(), dims.end(), [](std::string_view d) {
        const std::size_t dots = d.find("..");
        return dots != std::string_view::npos && is_number(d.substr(0, dots)) && is_number(d.substr(dots + 2));
    });
}

bool reversed(std::string_view range) {
    for (std::string_view d : split(range.substr(1, range.size() - 2), '_')) {
        const std::size_t dots = d.find("..");
        if (std::stoll(std::string(d.substr(0, dots))) > std::stoll(std::string(d.substr(dots + 2)))) return true;
    }
    return false;
}

}  // namespace

std::vector<Problem> check_tag_file(std::string_view contents, ParseLine parser) {
    std::vector<Problem> out;
    const std::vector<std::string> chunks = definition_lines(contents);
    const TagSet set = TagSet::parse(contents, parser);
    // Every chunk the driver takes ends at a line feed, so definition k is
    // the file's line k (a long line's tail stands for the whole line).
    const std::vector<std::string_view> lines = split(contents, '\n');
    std::map<std::string, std::size_t> names, ids;

    for (std::size_t k = 0; k < set.tags().size(); ++k) {
        const std::size_t n = k + 1;
        const Tag &tag = set.tags()[k];
        std::string_view raw = lines[k];
        if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
        auto problem = [&](std::string text) { out.push_back({n, std::move(text)}); };

        if (lines[k].size() + 1 > kLineChars)
            problem(cat("the line is ", lines[k].size() + 1, " characters long with its line feed; the driver reads ",
                        kLineChars, " at a time and takes only the last ", chunks[k].size(), " as the definition"));
        if (raw.find_first_not_of(" \t") == std::string_view::npos) {
            problem(cat("blank line: the driver counts it as tag ", n, " and every later id moves up by one"));
            continue;
        }
        const auto cols = split(raw, ',');
        if (cols.size() == 1 && raw.find(';') != std::string_view::npos) {
            problem("columns separated by ';': the driver separates columns by ',' only");
            continue;
        }
        if (!is_number(cols[0])) {
            problem(k == 0 ? cat("a header line: the driver takes it as tag 1 and every later id moves up by one")
                           : cat("column 1 '", cols[0], "' is not a tag id"));
            if (k == 0) continue;
        } else if (auto [at, fresh] = ids.emplace(std::string(cols[0]), n); !fresh) {
            problem(cat("duplicate id ", cols[0], " (also line ", at->second, ")"));
        }
        const bool continued = std::string_view(tag.rec.name).find(",#") != std::string_view::npos;
        const std::size_t type_col = continued ? 3 : 2;
        if (tag.rec.name[0] == '\0') problem("empty name");
        else if (cols[1].find('"') != std::string_view::npos || cols[1].find('\'') != std::string_view::npos)
            problem(cat("quoted name ", cols[1], ": the driver takes the quotes as part of the name"));
        if (tag.type == nullptr) {
            // The driver read the next column as the type only when it took
            // this one for the rest of a name ("Axis[2,3]").
            const std::size_t shown = continued && !cols[2].ends_with("]") ? 2 : type_col;
            problem(cat("unknown type '", shown < cols.size() ? cols[shown] : "",
                        "' (type names are upper case, as BOOL, INT, DINT, REAL, STRING)"));
            continue;
        }
        if (auto [at, fresh] = names.emplace(tag.label, n); !fresh)
            problem(cat("duplicate name '", tag.label, "' (also line ", at->second, ")"));
        const std::string_view range = type_col + 1 < cols.size() ? cols[type_col + 1] : std::string_view{};
        if (!range.empty() && !bounds_well_formed(range))
            problem(cat("bad bounds '", range, "': the driver reads [lo..hi], [lo..hi_lo..hi] or [lo..hi_lo..hi_lo..hi]"));
        else if (!range.empty() && reversed(range))
            problem(cat("reversed bounds ", range, ": the lower bound comes first"));
        else if (!tag.shape)
            problem(cat("bounds ", range, " give more elements than the tool can address"));
        if (const uint32_t units = longest_wire_name(tag); units > kMaxNameUnits)
            problem(cat("name too long for the protocol: its element names take ", units,
                        " UTF-16 units, at most ", kMaxNameUnits, " travel"));
        std::string why;
        if (!tag.shape) continue;
        if (!driver_reads(tag, why)) problem(cat("cannot be read: ", why));
        if (!driver_writes(tag, why)) problem(cat("cannot be written: ", why));
    }
    if (!contents.empty() && contents.back() != '\n')
        out.push_back({lines.size(), "no line feed at the end: the driver ignores this last line"});
    if (set.tags().empty()) out.push_back({0, "no tag definitions: the driver cannot load this file"});
    return out;
}

}  // namespace kplc::cli
