// Tag file loading against the floor of reading the same file line by line.
//
// Writes a tag file of --lines lines (100,000 by default) of mixed shapes into
// a private working folder, then, for --rounds rounds, times in turn:
//   fgets    a plain fgets() loop over the file (the floor),
//   touch    calloc() of the record array and one write per page of it: the
//            cost of first-touching the memory the loader must fill,
//   load     kplc_build_tagtable() on the file, table released afterwards.
// Prints each round and the medians, and the ratio load / fgets. The file is
// read once before timing, so every round reads from the page cache.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_kit.hpp"
#include "kplc/kplc.h"

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Lines seen by a 256-byte fgets loop; the count keeps the loop from being optimised out.
std::size_t fgets_lines(const char *name) {
    FILE *file = std::fopen(name, "r");
    if (file == nullptr) return 0;
    char line[256];
    std::size_t lines = 0;
    while (std::fgets(line, sizeof line, file) != nullptr) lines += std::strchr(line, '\n') != nullptr;
    std::fclose(file);
    return lines;
}

std::size_t touch_records(std::size_t count) {
    auto *table = static_cast<unsigned char *>(std::calloc(count, sizeof(kplc_tag_str)));
    if (table == nullptr) return 0;
    const std::size_t bytes = count * sizeof(kplc_tag_str);
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    for (std::size_t at = 0; at < bytes; at += page) table[at] = 1;
    const std::size_t sum = table[bytes / 2];
    std::free(table);
    return sum;
}

}  // namespace

int main(int argc, char **argv) {
    std::size_t lines = 100000;
    int rounds = 7;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--lines") == 0) lines = std::strtoul(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--rounds") == 0) rounds = std::atoi(argv[i + 1]);
    }
    if (lines == 0 || rounds < 1) {
        std::fprintf(stderr, "usage: %s [--lines N] [--rounds R]\n", argv[0]);
        return 2;
    }

    kplc::bench::Workdir dir;
    const std::string text = kplc::bench::mixed_tags(lines);
    std::string name = dir.write_tag_file(kplc::bench::kLoopbackAddress, 0, text);
    if (fgets_lines(name.c_str()) != lines) {
        std::fprintf(stderr, "tag file not written\n");
        return 1;
    }
    std::printf("tag file: %zu lines, %zu bytes; record array %zu x %zu bytes = %.1f MB\n", lines, text.size(),
                lines, sizeof(kplc_tag_str), static_cast<double>(lines * sizeof(kplc_tag_str)) / 1e6);

    std::vector<double> floor_ms, touch_ms, load_ms, ratios;
    std::printf("%6s %10s %10s %10s %8s\n", "round", "fgets ms", "touch ms", "load ms", "ratio");
    for (int r = 0; r < rounds; ++r) {
        auto start = Clock::now();
        const std::size_t seen = fgets_lines(name.c_str());
        const double f = ms_since(start);

        start = Clock::now();
        const std::size_t touched = touch_records(lines);
        const double t = ms_since(start);

        start = Clock::now();
        kplc_tag_str *table = nullptr;
        const u32 loaded = kplc_build_tagtable(&table, name.data());
        const double l = ms_since(start);
        std::free(table);

        if (seen != lines || loaded != lines || touched != 0) {
            std::fprintf(stderr, "round %d: fgets saw %zu lines, the loader %u\n", r, seen, loaded);
            return 1;
        }
        floor_ms.push_back(f);
        touch_ms.push_back(t);
        load_ms.push_back(l);
        ratios.push_back(l / f);
        std::printf("%6d %10.2f %10.2f %10.2f %8.2f\n", r, f, t, l, l / f);
    }
    using kplc::bench::percentile;
    const double f = percentile(floor_ms, 50), t = percentile(touch_ms, 50), l = percentile(load_ms, 50);
    std::printf("median %10.2f %10.2f %10.2f %8.2f  (ratio of medians; per-round ratios %.2f..%.2f)\n", f, t, l,
                l / f, percentile(ratios, 0), percentile(ratios, 100));
    std::printf("load per line: %.0f ns; fgets per line: %.0f ns\n", l * 1e6 / static_cast<double>(lines),
                f * 1e6 / static_cast<double>(lines));
    return 0;
}
