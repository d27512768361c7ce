// Micro-benchmarks of the driver's own work per request and per tag file,
// with no socket involved: planning a read pass, building its two request
// frames, decoding the value response, parsing tag lines, loading a tag file
// and converting names to UTF-16.
//
// The responses that are decoded are the simulator's answers to the very
// frames built here, so they carry the item and value layouts of a real pass.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench_kit.hpp"
#include "kplc/kplc.h"
#include "plc.hpp"
#include "protocol/frame.hpp"
#include "protocol/read_plan.hpp"

namespace {

namespace rd = kplc::proto::read;
using kplc::bench::dint_tags;

constexpr std::size_t kTableSize = rd::kMaxBatch;

// A batch of n global DINT reads over a table of kTableSize DINT tags, with
// the frames and responses of its one pass.
struct Batch {
    std::vector<Reg> regs;
    std::vector<std::array<uint8_t, 4>> values;
    std::vector<DrvRWBuf> bufs;
    std::vector<DrvRWBuf *> ptrs;
    std::unique_ptr<rd::PassPlan> plan = std::make_unique<rd::PassPlan>();
    std::array<uint8_t, rd::kFrameSize> resolve{};
    std::size_t resolve_len = 0;
    std::vector<uint8_t> resolve_reply;
    std::array<uint8_t, rd::kFrameSize> location{};
    std::size_t location_len = 0;
    std::vector<uint8_t> value_reply;
};

struct World {
    std::string text = dint_tags(kTableSize);
    std::vector<kplc_tag_str> table = kplc::bench::parse_table(text);
    kplc::sim::Plc plc{text};

    // Plans and builds the batch's frames and fetches the simulator's replies.
    // False when the pass cannot carry n requests in 4096-byte exchanges.
    bool make(std::size_t n, Batch &b) {
        b.regs.assign(n, Reg{});
        b.values.assign(n, {});
        b.bufs.assign(n, DrvRWBuf{});
        b.ptrs.assign(n, nullptr);
        for (std::size_t i = 0; i < n; ++i) {
            b.regs[i].regId = static_cast<U16>(i + 1);
            b.regs[i].regNums = 4;
            b.bufs[i] = DrvRWBuf{0, b.values[i].data(), 4, 0};
            b.ptrs[i] = &b.bufs[i];
        }
        rd::plan_pass(*b.plan, table, b.regs, b.ptrs, kplc::proto::kGlobalScope, {});
        if (b.plan->reading != n) return false;
        b.resolve_len = rd::build_resolve_request(*b.plan, b.resolve, 0);
        if (b.resolve_len == 0) return false;
        b.resolve_reply = plc.handle(std::span<const uint8_t>(b.resolve).first(b.resolve_len));
        if (b.resolve_reply.size() > rd::kFrameSize) return false;  // one receive takes 4096 bytes
        b.location_len = rd::build_location_request(*b.plan, b.resolve_reply, b.location, 1);
        if (b.location_len == 0) return false;
        b.value_reply = plc.handle(std::span<const uint8_t>(b.location).first(b.location_len));
        return b.value_reply.size() <= rd::kFrameSize;
    }
};

World &world() {
    static World w;
    return w;
}

// The largest batch of DINT reads whose four frames all fit 4096 bytes, found
// by asking the planner and the simulator (the resolve reply, 24 bytes per
// item, is what runs out first).
std::size_t largest_batch() {
    static const std::size_t largest = [] {
        std::size_t best = 0;
        for (std::size_t n = 1; n <= kTableSize; ++n) {
            Batch b;
            if (!world().make(n, b)) break;
            best = n;
        }
        return best;
    }();
    return largest;
}

void batch_sizes(benchmark::internal::Benchmark *bm) {
    for (const long n : {1L, 8L, 64L}) bm->Arg(n);
    bm->Arg(static_cast<long>(largest_batch()));
}

Batch prepared(benchmark::State &state) {
    Batch b;
    if (!world().make(static_cast<std::size_t>(state.range(0)), b)) state.SkipWithError("batch does not fit");
    return b;
}

void BM_PlanPass(benchmark::State &state) {
    Batch b = prepared(state);
    for (auto _ : state) {
        rd::plan_pass(*b.plan, world().table, b.regs, b.ptrs, kplc::proto::kGlobalScope, {});
        benchmark::DoNotOptimize(b.plan->elements);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_PlanPass)->Apply(batch_sizes);

void BM_BuildResolveRequest(benchmark::State &state) {
    Batch b = prepared(state);
    std::size_t len = 0;
    for (auto _ : state) {
        len = rd::build_resolve_request(*b.plan, b.resolve, 7);
        benchmark::DoNotOptimize(b.resolve.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(len));
}
BENCHMARK(BM_BuildResolveRequest)->Apply(batch_sizes);

// Reads the resolve reply (items walked with the bounded cursor) and writes
// the read by location request.
void BM_BuildLocationRequest(benchmark::State &state) {
    Batch b = prepared(state);
    std::size_t len = 0;
    for (auto _ : state) {
        len = rd::build_location_request(*b.plan, b.resolve_reply, b.location, 8);
        benchmark::DoNotOptimize(b.location.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(b.resolve_reply.size() + len));
}
BENCHMARK(BM_BuildLocationRequest)->Apply(batch_sizes);

void BM_DecodeValues(benchmark::State &state) {
    Batch b = prepared(state);
    for (auto _ : state) {
        const unsigned rc = rd::decode_values(*b.plan, b.value_reply, b.ptrs);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(b.values.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(b.value_reply.size()));
}
BENCHMARK(BM_DecodeValues)->Apply(batch_sizes);

// One representative line per tag shape; the parser leaves its input as it
// was, so the same text is parsed every time.
void BM_ParseTagLine(benchmark::State &state) {
    const std::string text = kplc::bench::mixed_tags(10);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        lines.emplace_back(text.substr(at, end - at));
        at = end;
    }
    kplc_tag_str tag{};
    int64_t bytes = 0;
    for (auto _ : state) {
        for (auto &line : lines) {
            std::memset(&tag, 0, sizeof tag);  // the loader hands the parser a cleared record
            kplc_pase_str(line.data(), &tag);
            benchmark::DoNotOptimize(tag);
        }
    }
    for (const auto &line : lines) bytes += static_cast<int64_t>(line.size());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_ParseTagLine);

// The whole load of a 100,000-line file: two reads of it, the record array
// (100,000 x 568 bytes, first touched here) and the parse of every line.
void BM_LoadTagFile(benchmark::State &state) {
    const auto lines = static_cast<std::size_t>(state.range(0));
    kplc::harness::WorkFolder dir;
    std::string name = dir.write_tag_file(kplc::harness::kLoopback, 0, kplc::bench::mixed_tags(lines));
    for (auto _ : state) {
        kplc_tag_str *table = nullptr;
        const u32 count = kplc_build_tagtable(&table, name.data());
        if (count != lines) state.SkipWithError("tag file did not load");
        std::free(table);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LoadTagFile)->Arg(100000)->Unit(benchmark::kMillisecond);

// Tag names as the read path converts them: ASCII with an index suffix, and
// names with two- and three-byte UTF-8 characters.
void BM_Utf8ToUtf16(benchmark::State &state) {
    static constexpr const char *kNames[] = {
        "Recipe12[#42]",
        "Motor_Geschwindigkeit_Sollwert[#3,#1]",
        "F\xC3\xBCllstand_Beh\xC3\xA4lter[#7]",
        "\xE6\xB8\xA9\xE5\xBA\xA6\xE8\xA8\xAD\xE5\xAE\x9A[#1,#2,#3]",
    };
    std::array<unsigned short, 256> units{};
    int64_t bytes = 0;
    for (const char *name : kNames) bytes += static_cast<int64_t>(std::strlen(name));
    for (auto _ : state) {
        for (const char *name : kNames) {
            const int n = utf8ToUnicode(reinterpret_cast<unsigned char *>(const_cast<char *>(name)), units.data(),
                                        static_cast<int>(units.size()));
            benchmark::DoNotOptimize(n);
            benchmark::DoNotOptimize(units.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(std::size(kNames)));
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_Utf8ToUtf16);

}  // namespace
