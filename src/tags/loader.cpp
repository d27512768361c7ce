// Loading a tag definition file into an array of tag records, one per line.
//
// The file is read twice, once to count the definitions and once to parse
// them, so that the array is allocated once at its exact size. Both passes
// read it in the same chunks: at most 255 characters, ending early after a
// line feed, as a 256-byte line buffer receives them. Only a chunk that ends
// in a line feed is a definition, so a line over 255 characters counts once,
// by its last chunk, and a last line without a line feed does not count.
#include <stdio.h>  // getc_unlocked

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "kplc/tags.h"

namespace {

constexpr std::size_t kLineBuffer = 256;
using LineBuffer = std::array<char, kLineBuffer>;

// Reads the next chunk into `line` (zero-terminated) and returns its length,
// 0 at end of file. The length is counted, not measured with strlen, so a
// zero byte inside a line does not hide its line feed.
std::size_t read_chunk(FILE *file, LineBuffer &line) noexcept {
    std::size_t len = 0;
    while (len < line.size() - 1) {
        const int c = getc_unlocked(file);  // the stream is private to this load
        if (c == EOF) break;
        line[len++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    line[len] = '\0';
    return len;
}

bool ends_line(const LineBuffer &line, std::size_t len) noexcept { return len != 0 && line[len - 1] == '\n'; }

u32 count_definitions(FILE *file, LineBuffer &line) noexcept {
    u32 count = 0;
    for (std::size_t len; (len = read_chunk(file, line)) != 0;)
        if (ends_line(line, len) && count != UINT32_MAX) ++count;
    return count;
}

}  // namespace

extern "C" {

KPLC_API u32 kplc_build_tagtable(kplc_tag_str **g_tag_table, char *csv_name) {
    if (g_tag_table == nullptr || csv_name == nullptr) return 0;  // nowhere to load from or into

    FILE *file = std::fopen(csv_name, "r");
    if (file == nullptr) {
        std::printf("[PLC] ");
        std::printf("open %s file failed", csv_name);
        std::printf(", at line: %d\r\n", __LINE__);
        return 0;
    }

    LineBuffer line{};
    const u32 lines = count_definitions(file, line);
    // A file without a single complete line has no tag; there is nothing to
    // allocate and the load fails like any other.
    if (lines == 0) {
        std::fclose(file);
        return 0;
    }

    auto *table = static_cast<kplc_tag_str *>(std::calloc(lines, sizeof(kplc_tag_str)));
    if (table == nullptr) {
        std::printf("[PLC] malloc kplc_tag_str failed at line %d\r\n", __LINE__);
        if (std::fclose(file) != 0)
            std::printf("[PLC] Close csv file error while handling memory allocation failure!!! at line %d\r\n",
                        __LINE__);
        return 0;
    }

    // Only a stream that cannot go back (a pipe in the file's place) fails here.
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        std::printf("[PLC] rewind csv file failed at line %d\r\n", __LINE__);
        std::fclose(file);
        std::free(table);
        return 0;
    }
    line.fill('\0');

    // The file may have shrunk since it was counted; never fill more records
    // than were allocated.
    u32 count = 0;
    for (std::size_t len; count < lines && (len = read_chunk(file, line)) != 0;)
        if (ends_line(line, len)) kplc_pase_str(line.data(), &table[count++]);

    if (std::fclose(file) != 0) {
        std::printf("[PLC] Close csv file error!!! at line %d\r\n", __LINE__);
        std::free(table);
        return 0;
    }
    if (count == 0) {
        std::free(table);
        return 0;
    }
    *g_tag_table = table;
    return count;
}

}  // extern "C"
