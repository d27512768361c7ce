// How a tag file is cut into definition lines. The loader reads the file into
// a 256-byte line buffer: a chunk is at most 255 characters, ending early
// after a line feed, and only a chunk that ends in a line feed is a definition.
// A line over 255 characters is thus one definition (its last chunk), and a
// last line without a line feed is none. The chunk's length is counted, so a
// zero byte inside a line does not hide its line feed; the parser, which takes
// the chunk as a C string, then stops at the zero byte.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kplc::format {

inline constexpr std::size_t kLineBuffer = 256;
inline constexpr std::size_t kChunkChars = kLineBuffer - 1;

// Characters of `text` that go into the line buffer while `room` more fit:
// up to `room`, ending right after the first line feed.
constexpr std::size_t chunk_take(std::string_view text, std::size_t room) noexcept {
    const std::string_view part = text.substr(0, std::min(room, text.size()));
    const std::size_t lf = part.find('\n');
    return lf == std::string_view::npos ? part.size() : lf + 1;
}

constexpr bool is_definition(std::string_view chunk) noexcept { return !chunk.empty() && chunk.back() == '\n'; }

// Calls `on_line(chunk)` for every definition of a whole file's text, in order.
template <class OnLine>
void for_each_definition(std::string_view text, OnLine &&on_line) {
    while (!text.empty()) {
        const std::string_view chunk = text.substr(0, chunk_take(text, kChunkChars));
        text.remove_prefix(chunk.size());
        if (is_definition(chunk)) on_line(chunk);
    }
}

}  // namespace kplc::format
