// Loading a tag definition file into an array of tag records, one per line.
//
// The file is read twice, once to count the definitions and once to parse
// them, so that the array is allocated once at its exact size. Both passes
// read it in the same chunks: at most 255 characters, ending early after a
// line feed, as a 256-byte line buffer receives them. Only a chunk that ends
// in a line feed is a definition, so a line over 255 characters counts once,
// by its last chunk, and a last line without a line feed does not count.
#include "tags/loader.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "format/tag_lines.hpp"
#include "tags/line_parser.hpp"

namespace {

using LineBuffer = std::array<char, kplc::format::kLineBuffer>;

// The file is read in blocks and the chunks are cut out of them, which is the
// same as reading it a character at a time into the line buffer, without a
// library call per character. One page: the loader may run deep inside a
// read or write call, on the runtime's stack.
constexpr std::size_t kBlock = 4096;

class ChunkReader {
public:
    explicit ChunkReader(FILE *file) noexcept : file_(file) {}

    // Starts again at the beginning of the file; false when the stream cannot
    // go back (a pipe in the file's place).
    bool rewind() noexcept {
        pos_ = end_ = 0;
        return std::fseek(file_, 0, SEEK_SET) == 0;
    }

    // Line feeds in the rest of the file. Every line feed ends exactly one
    // chunk (a chunk stops right after it), so this is the number of chunks
    // that end in a line feed.
    u32 count_line_feeds() noexcept {
        u32 count = 0;
        while (refill()) {
            const auto n = static_cast<std::size_t>(std::count(block_.data() + pos_, block_.data() + end_, '\n'));
            count = n > UINT32_MAX - count ? UINT32_MAX : count + static_cast<u32>(n);
            pos_ = end_;
        }
        return count;
    }

    // The next chunk into `line` (zero-terminated): at most 255 characters,
    // ending early after a line feed. Returns its length, 0 at end of file.
    // The length is counted, not measured with strlen, so a zero byte inside
    // a line does not hide its line feed.
    std::size_t next_chunk(LineBuffer &line) noexcept {
        std::size_t len = 0;
        while (len < line.size() - 1 && refill()) {
            const std::string_view block(block_.data() + pos_, end_ - pos_);
            const std::size_t take = kplc::format::chunk_take(block, line.size() - 1 - len);
            std::memcpy(line.data() + len, block.data(), take);
            len += take;
            pos_ += take;
            if (kplc::format::is_definition(block.substr(0, take))) break;
        }
        line[len] = '\0';
        return len;
    }

private:
    // True when unread bytes are in the block (reading the next block if needed).
    bool refill() noexcept {
        if (pos_ < end_) return true;
        pos_ = 0;
        end_ = std::fread(block_.data(), 1, block_.size(), file_);
        return end_ != 0;
    }

    FILE *file_;
    std::array<char, kBlock> block_;
    std::size_t pos_ = 0;
    std::size_t end_ = 0;
};


// The record array of a large file runs to tens of megabytes, and taking it a
// 4 KiB page fault at a time costs more than parsing the file. Asking for huge
// pages where the kernel offers them (a hint: ignored where it does not) maps
// it a few faults per 2 MiB instead. Only whole huge pages inside the array
// are advised; the allocator's own bytes before it are left alone.
void advise_huge_pages(void *array, std::size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
    constexpr uintptr_t kHuge = uintptr_t{2} << 20;
    if (bytes < 2 * kHuge) return;
    const auto start = reinterpret_cast<uintptr_t>(array);
    const uintptr_t first = (start + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t last = (start + bytes) & ~(kHuge - 1);
    if (last > first) (void)::madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
#else
    (void)array;
    (void)bytes;
#endif
}

}  // namespace

namespace kplc::tags {

u32 load_table(kplc_tag_str **g_tag_table, const char *csv_name) noexcept {
    if (g_tag_table == nullptr || csv_name == nullptr) return 0;  // nowhere to load from or into

    FILE *file = std::fopen(csv_name, "r");
    if (file == nullptr) {
        std::printf("[PLC] ");
        std::printf("open %s file failed", csv_name);
        std::printf(", at line: %d\r\n", __LINE__);
        return 0;
    }

    ChunkReader reader(file);
    const u32 lines = reader.count_line_feeds();
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
    advise_huge_pages(table, static_cast<std::size_t>(lines) * sizeof(kplc_tag_str));

    // Only a stream that cannot go back (a pipe in the file's place) fails here.
    if (!reader.rewind()) {
        std::printf("[PLC] rewind csv file failed at line %d\r\n", __LINE__);
        std::fclose(file);
        std::free(table);
        return 0;
    }
    LineBuffer line{};

    // The file may have shrunk since it was counted; never fill more records
    // than were allocated.
    u32 count = 0;
    for (std::size_t len; count < lines && (len = reader.next_chunk(line)) != 0;)
        if (kplc::format::is_definition(std::string_view(line.data(), len))) parse_definition(line.data(), &table[count++]);

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

}  // namespace kplc::tags
