// Tag file loading against the floor of reading the same file line by line.
//
// Writes a tag file of --lines lines (100,000 by default) of mixed shapes into
// a private working folder, then, for --rounds rounds, times in turn:
//   fgets    a plain fgets() loop over the file (the floor),
//   touch4k  calloc() of the record array and one write per 4 KiB page of it:
//            first-touching the memory the loader must fill, page by page,
//   touch2m  the same with the array advised for huge pages, as the loader
//            does it,
//   parse    kplc_pase_str() on every line held in memory, into an array that
//            is already touched: the parser alone,
//   load     kplc_build_tagtable() on the file, table released afterwards.
// Prints each round and the medians, the ratio load / fgets, and the ratio of
// the load to its floor, fgets + touch2m (reading the file line by line plus
// first-touching the record array the runtime's layout needs, both measured
// in the same round), in wall time and in CPU time of the thread (user +
// system, which takes in the page faults but not the time other processes
// hold the processor). The file is
// read once before timing, so every round reads from the page cache.
#include <sys/mman.h>
#include <unistd.h>

#include <time.h>

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

double cpu_ms() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
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

std::size_t touch_records(std::size_t count, bool huge) {
    auto *table = static_cast<unsigned char *>(std::calloc(count, sizeof(kplc_tag_str)));
    if (table == nullptr) return 0;
    const std::size_t bytes = count * sizeof(kplc_tag_str);
    if (huge) {
        constexpr uintptr_t kHuge = uintptr_t{2} << 20;
        const auto start = reinterpret_cast<uintptr_t>(table);
        const uintptr_t first = (start + kHuge - 1) & ~(kHuge - 1);
        const uintptr_t last = (start + bytes) & ~(kHuge - 1);
        if (last > first) (void)::madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
    }
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    for (std::size_t at = 0; at < bytes; at += page) table[at] = 1;
    const std::size_t sum = table[bytes / 2];
    std::free(table);
    return sum;
}

// Lines of the file, each zero-terminated with its line feed, as the loader
// hands them to the parser.
std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        lines.emplace_back(text, at, end - at);
        at = end;
    }
    return lines;
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

    kplc::harness::WorkFolder dir;
    const std::string text = kplc::bench::mixed_tags(lines);
    std::string name = dir.write_tag_file(kplc::harness::kLoopback, 0, text);
    if (fgets_lines(name.c_str()) != lines) {
        std::fprintf(stderr, "tag file not written\n");
        return 1;
    }
    std::printf("tag file: %zu lines, %zu bytes; record array %zu x %zu bytes = %.1f MB\n", lines, text.size(),
                lines, sizeof(kplc_tag_str), static_cast<double>(lines * sizeof(kplc_tag_str)) / 1e6);

    std::vector<std::string> in_memory = split_lines(text);
    std::vector<kplc_tag_str> parsed(lines);
    std::vector<double> floor_ms, touch_ms, huge_ms, parse_ms, load_ms, ratios, floor_cpu, huge_cpu, parse_cpu,
        load_cpu, memory_floor_ms, memory_floor_cpu, memory_ratios, memory_ratios_cpu;
    std::printf("%6s %9s %9s %9s %9s %9s %7s %9s %7s\n", "round", "fgets", "touch4k", "touch2m", "parse", "load", "ratio",
                "floor", "l/floor");
    for (int r = 0; r < rounds; ++r) {
        double cpu0 = cpu_ms();
        auto start = Clock::now();
        const std::size_t seen = fgets_lines(name.c_str());
        const double f = ms_since(start);
        floor_cpu.push_back(cpu_ms() - cpu0);

        start = Clock::now();
        std::size_t touched = touch_records(lines, false);
        const double t = ms_since(start);

        cpu0 = cpu_ms();
        start = Clock::now();
        touched += touch_records(lines, true);
        const double h = ms_since(start);
        huge_cpu.push_back(cpu_ms() - cpu0);

        std::memset(static_cast<void *>(parsed.data()), 0, parsed.size() * sizeof(kplc_tag_str));
        cpu0 = cpu_ms();
        start = Clock::now();
        for (std::size_t i = 0; i < lines; ++i) kplc_pase_str(in_memory[i].data(), &parsed[i]);
        const double p = ms_since(start);
        parse_cpu.push_back(cpu_ms() - cpu0);

        cpu0 = cpu_ms();
        start = Clock::now();
        kplc_tag_str *table = nullptr;
        const u32 loaded = kplc_build_tagtable(&table, name.data());
        const double l = ms_since(start);
        load_cpu.push_back(cpu_ms() - cpu0);
        std::free(table);

        if (seen != lines || loaded != lines || touched != 0) {
            std::fprintf(stderr, "round %d: fgets saw %zu lines, the loader %u\n", r, seen, loaded);
            return 1;
        }
        floor_ms.push_back(f);
        touch_ms.push_back(t);
        huge_ms.push_back(h);
        parse_ms.push_back(p);
        load_ms.push_back(l);
        ratios.push_back(l / f);
        // The floor: the file read line by line plus the record array first touched.
        memory_floor_ms.push_back(f + h);
        memory_ratios.push_back(l / (f + h));
        memory_floor_cpu.push_back(floor_cpu.back() + huge_cpu.back());
        memory_ratios_cpu.push_back(load_cpu.back() / memory_floor_cpu.back());
        std::printf("%6d %9.2f %9.2f %9.2f %9.2f %9.2f %7.2f %9.2f %7.2f\n", r, f, t, h, p, l, l / f, f + h,
                    l / (f + h));
    }
    using kplc::bench::percentile;
    const double f = percentile(floor_ms, 50), t = percentile(touch_ms, 50), h = percentile(huge_ms, 50);
    const double p = percentile(parse_ms, 50), l = percentile(load_ms, 50);
    std::printf("median %9.2f %9.2f %9.2f %9.2f %9.2f %7.2f  (ms; ratio load/fgets of medians)\n", f, t, h, p, l,
                l / f);
    std::printf("per-round ratios %.2f..%.2f\n", percentile(ratios, 0), percentile(ratios, 100));
    const double fc = percentile(floor_cpu, 50), lc = percentile(load_cpu, 50);
    std::printf("cpu time (median): fgets %.2f ms, touch2m %.2f ms, parse %.2f ms, load %.2f ms, ratio load/fgets %.2f\n",
                fc, percentile(huge_cpu, 50), percentile(parse_cpu, 50), lc, lc / fc);
    std::printf("floor fgets + touch2m (median): wall %.2f ms, cpu %.2f ms; median ratio load/floor: wall %.2f, "
                "cpu %.2f (per round, cpu: %.2f..%.2f)\n",
                percentile(memory_floor_ms, 50), percentile(memory_floor_cpu, 50), percentile(memory_ratios, 50),
                percentile(memory_ratios_cpu, 50), percentile(memory_ratios_cpu, 0), percentile(memory_ratios_cpu, 100));
    std::printf("load per line: %.0f ns; fgets per line: %.0f ns\n", l * 1e6 / static_cast<double>(lines),
                f * 1e6 / static_cast<double>(lines));
    return 0;
}
