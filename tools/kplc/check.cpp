#include "check.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>

#include "capability.hpp"
#include "format/device_class.hpp"
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

// `s` as a whole decimal number of type T; nullopt for anything else.
template <typename T>
std::optional<T> whole_number(std::string_view s) {
    T v{};
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc{} || end != s.data() + s.size()) return std::nullopt;
    return v;
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

// What is wrong with a device column the driver read as class `found`; empty
// when the text is an area name and a number (or empty: no device).
std::string device_problem(std::string_view text, uint8_t found) {
    if (text.empty()) return {};
    const std::string shown = quote(text);
    if (found == format::kNoDevice) {
        return text.size() < 3
                   ? cat("device ", shown, " is shorter than 3 characters: the driver takes the tag for one without a device")
                   : cat("device ", shown, " names no device area the driver knows: it takes the tag for one without a device");
    }
    const std::size_t letters = std::min(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), text.size());
    const std::string_view area = text.substr(0, letters), number = text.substr(letters);
    // The driver looks for these spellings inside the text and takes the first
    // it finds; the tool only checks that the text is one of them and a
    // number, so that nothing else was taken for one.
    if (std::none_of(format::kDeviceMnemonics.begin(), format::kDeviceMnemonics.end(),
                     [area](const format::DeviceMnemonic &m) { return m.mnemonic == area; }))
        return cat("device ", shown, ": ", quote(area), " is no device area; the driver takes the area it finds inside the text");
    if (number.empty() || number.find_first_not_of("0123456789") != std::string_view::npos)
        return cat("device ", shown, " has no device number after ", area, ": the driver reads the area alone");
    if (!whole_number<uint32_t>(number))
        return cat("device ", shown, ": the number ", quote(number), " is beyond any device (at most 4294967295)");
    return {};
}

// What is wrong with a scope column (nullopt: the line has none) that the
// driver read as `mode`; `has_program` tells whether the name gave a program.
std::string scope_problem(std::optional<std::string_view> text, int32_t mode, bool has_program) {
    const std::string fallback = cat("the driver takes the tag for local to program ", mode,
                                     " (write -1 for a global tag, or the program's number)");
    if (!text) return cat("no scope column: ", fallback);
    if (text->empty()) return cat("empty scope column: ", fallback);
    const auto number = whole_number<int32_t>(*text);
    if (!number) return cat("scope ", quote(*text), " is not a number: ", fallback);
    if (*number < -1) return cat("scope ", *number, " is neither -1 (global) nor a program's number");
    if (*number >= 0 && !has_program)
        return cat("scope ", *number, " makes the tag local to a program, but its name has no program prefix (Program.Name)");
    return {};
}

}  // namespace

std::string quote(std::string_view text, std::size_t max) {
    std::string out = "'";
    for (std::size_t i = 0; i < text.size() && i < max; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '\'';
    if (text.size() > max) out += cat("... (", text.size(), " characters)");
    return out;
}

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
        auto problem = [&](std::string text, bool note = false) { out.push_back({n, std::move(text), note}); };

        // What the parser reads: the last chunk of the line, up to a NUL.
        std::string_view raw = chunks[k];
        raw.remove_suffix(1);  // the line feed
        const bool long_line = lines[k].size() + 1 > kLineChars;
        if (long_line)
            problem(cat("the line is ", lines[k].size() + 1, " characters long with its line feed; the driver reads ",
                        kLineChars, " at a time and takes only the last ", chunks[k].size(), " as the definition"));
        if (const std::size_t nul = raw.find('\0'); nul != std::string_view::npos) {
            problem(cat("a NUL byte at character ", nul + 1, " of what the driver reads: it reads the line only up to it"));
            raw = raw.substr(0, nul);
        }
        if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
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
            problem(k == 0 && !long_line ? cat("a header line: the driver takes it as tag 1 and every later id moves up by one")
                           : cat("column 1 ", quote(cols[0]), " is not a tag id"));
            if (k == 0 && !long_line) continue;
        } else if (auto [at, fresh] = ids.emplace(std::string(cols[0]), n); !fresh) {
            problem(cat("duplicate id ", cols[0], " (also line ", at->second, ")"));
        }
        const bool continued = std::string_view(tag.rec.name).find(",#") != std::string_view::npos;
        const std::size_t type_col = continued ? 3 : 2;
        const auto column = [&](std::size_t c) {
            return c < cols.size() ? std::optional<std::string_view>(cols[c]) : std::nullopt;
        };
        if (tag.rec.name[0] == '\0') problem("empty name");
        else if (cols.size() > 1 && (cols[1].find('"') != std::string_view::npos || cols[1].find('\'') != std::string_view::npos))
            problem(cat("quoted name ", quote(cols[1]), ": the driver takes the quotes as part of the name"));
        if (tag.type == nullptr) {
            // The driver read the next column as the type only when it took
            // this one for the rest of a name ("Axis[2,3]").
            const std::size_t shown = continued && !cols[2].ends_with("]") ? 2 : type_col;
            if (!column(shown)) problem("no type column");
            else problem(cat("unknown type ", quote(*column(shown)),
                             " (type names are upper case, as BOOL, INT, DINT, REAL, STRING)"));
            continue;
        }
        if (auto [at, fresh] = names.emplace(tag.label, n); !fresh)
            problem(cat("duplicate name ", quote(tag.label, 80), " (also line ", at->second, ")"));
        const std::string_view range = column(type_col + 1).value_or("");
        if (!range.empty() && !bounds_well_formed(range))
            problem(cat("bad bounds ", quote(range), ": the driver reads [lo..hi], [lo..hi_lo..hi] or [lo..hi_lo..hi_lo..hi]"));
        else if (!range.empty() && reversed(range))
            problem(cat("reversed bounds ", range, ": the lower bound comes first"));
        else if (!tag.shape)
            problem(cat("bounds ", range, " give more elements than the tool can address"));
        if (std::string why = device_problem(column(type_col + 4).value_or(""), tag.rec.address); !why.empty())
            problem(std::move(why));
        const bool has_program = reinterpret_cast<const char *>(tag.rec.local_name)[0] != '\0';
        if (std::string why = scope_problem(column(type_col + 5), tag.rec.mode_type, has_program); !why.empty())
            problem(std::move(why));
        if (const uint32_t units = longest_wire_name(tag); units > kMaxNameUnits)
            problem(cat("name too long for the protocol: its element names take ", units,
                        " UTF-16 units, at most ", kMaxNameUnits, " travel"));
        std::string why;
        if (!tag.shape) continue;
        const bool reads = driver_reads(tag, why);
        if (!reads) problem(cat("cannot be read: ", why));
        // A tag the driver reads but cannot write is a property of the tag,
        // as `list` shows it, not a fault of the line.
        if (!driver_writes(tag, why)) problem(cat(reads ? "read only: " : "cannot be written: ", why), reads);
    }
    if (!contents.empty() && contents.back() != '\n')
        out.push_back({lines.size(), "no line feed at the end: the driver ignores this last line"});
    if (set.tags().empty()) out.push_back({0, "no tag definitions: the driver cannot load this file"});
    return out;
}

}  // namespace kplc::cli
