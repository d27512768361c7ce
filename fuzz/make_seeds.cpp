// Writes the seed corpora: real frames of the simulator (every reply a seed
// carries is what kplc-sim answered to the driver's own request), the example
// lines, files and texts the driver is known to meet, and the shapes at the
// edges (empty catalogue, cut responses). Run it from the build folder:
//   fuzz/fuzz_make_seeds <source>/fuzz/corpus
// It replaces files of its own names only; regression inputs stay.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "scripted_link.hpp"
#include "workspace.hpp"
#include "state/process_state.hpp"
#include "plc.hpp"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

fs::path g_root;

void put(const std::string &target, const std::string &name, const Bytes &bytes) {
    const fs::path dir = g_root / target;
    fs::create_directories(dir);
    std::ofstream out(dir / ("seed-" + name), std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void put_text(const std::string &target, const std::string &name, std::string_view text) {
    put(target, name, Bytes(text.begin(), text.end()));
}

Bytes hex(std::string_view text) {
    Bytes out;
    int hi = -1;
    for (const char c : text) {
        int v;
        if (c >= '0' && c <= '9') v = c - '0';
        else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        else continue;
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    return out;
}

void u16(Bytes &out, unsigned v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

void append_replies(Bytes &out, const std::vector<Bytes> &replies) {
    for (const Bytes &r : replies) {
        u16(out, static_cast<unsigned>(r.size()));
        out.insert(out.end(), r.begin(), r.end());
    }
}

// Runs `call` on a link the simulator answers, and returns its replies.
template <typename Call>
std::vector<Bytes> recorded(kplc::sim::Plc &plc, Call call) {
    auto &ws = kplc::fuzz::workspace();
    std::vector<Bytes> replies;
    {
        kplc::fuzz::ScriptedLink link(*ws.settings(), [&](std::span<const uint8_t> request) {
            replies.push_back(plc.handle(request));
            return replies.back();
        });
        call(ws);
    }
    return replies;
}

struct ReadSeed {
    const char *name;
    std::vector<Reg> regs;
};

Reg reg(uint16_t id, uint32_t addr, uint32_t nums) {
    Reg r{};
    r.regId = id;
    r.regAddr = addr;
    r.regNums = nums;
    return r;
}

void read_seeds(kplc::sim::Plc &plc) {
    const std::vector<ReadSeed> seeds = {
        {"numbers", {reg(1, 0, 4), reg(2, 0, 2), reg(4, 0, 4), reg(6, 0, 8), reg(7, 0, 8)}},
        {"bools", {reg(8, 0, 1), reg(9, 0, 1), reg(10, 0, 1), reg(11, 3, 5), reg(13, 0, 16)}},
        {"arrays", {reg(14, 4, 6), reg(15, 8, 16), reg(16, 26, 6), reg(17, 0, 32), reg(18, 8, 16)}},
        {"strings", {reg(19, 0, 20), reg(20, 45, 30), reg(21, 3, 40), reg(22, 0, 40)}},
        {"members", {reg(23, 0, 4), reg(24, 0, 2), reg(25, 0, 1), reg(26, 2, 10), reg(29, 0, 4), reg(32, 0, 16)}},
        {"programs", {reg(1, 0, 4), reg(33, 0, 2), reg(34, 0, 1), reg(35, 2, 6), reg(36, 0, 4), reg(37, 0, 11)}},
        {"unread", {reg(47, 0, 1), reg(48, 0, 2), reg(2, 0, 2)}},
        {"refused", {reg(41, 0, 1), reg(42, 0, 2), reg(0, 0, 2), reg(51, 0, 2), reg(49, 0, 2000)}},
    };
    for (const ReadSeed &seed : seeds) {
        std::vector<Reg> regs = seed.regs;
        std::vector<Bytes> buffers(regs.size());
        std::vector<DrvRWBuf> bufs(regs.size());
        std::vector<DrvRWBuf *> ptrs(regs.size());
        Bytes input{static_cast<uint8_t>(regs.size() - 1)};
        for (std::size_t i = 0; i < regs.size(); ++i) {
            input.push_back(static_cast<uint8_t>(regs[i].regId));
            u16(input, regs[i].regAddr);
            u16(input, regs[i].regNums);
            input.push_back(1);  // the runtime fills in `size`
            buffers[i].assign(regs[i].regNums, 0);
            bufs[i] = DrvRWBuf{0, buffers[i].data(), static_cast<int32_t>(regs[i].regNums), 0};
            ptrs[i] = &bufs[i];
        }
        const auto replies = recorded(plc, [&](kplc::fuzz::Workspace &ws) {
            kplc_mulity_read(ws.drv, &ws.port.prop, regs.data(), static_cast<int>(regs.size()), ptrs.data());
        });
        append_replies(input, replies);
        put("read_batch", seed.name, input);
        // The same batch with its value response cut in the middle.
        if (replies.size() >= 2 && replies[1].size() > 16) {
            std::vector<Bytes> cut = replies;
            cut[1].resize(cut[1].size() / 2);
            Bytes short_input(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(1 + 6 * regs.size()));
            append_replies(short_input, cut);
            put("read_batch", std::string(seed.name) + "-cut", short_input);
        }
    }
}

struct WriteSeed {
    const char *name;
    uint16_t id;
    uint32_t addr;
    Bytes value;
};

void write_seeds(kplc::sim::Plc &plc) {
    const std::vector<WriteSeed> seeds = {
        {"words", 2, 0, {0x34, 0x12}},
        {"dwords", 1, 0, {1, 2, 3, 4}},
        {"4words", 6, 0, {1, 2, 3, 4, 5, 6, 7, 8}},
        {"array-words", 14, 4, {1, 0, 2, 0}},
        {"array-dwords", 15, 8, {1, 0, 0, 0, 2, 0, 0, 0}},
        {"array-4words", 18, 16, Bytes(16, 7)},
        {"bit", 9, 0, {1}},
        {"bit-set-reset", 8, 0, {1}},
        {"bit-array-packed", 11, 3, {1}},
        {"bit-array-loop", 13, 2, {1, 0, 1}},
        {"bit-member", 25, 0, {1}},
        {"bit-member-array", 28, 2, {1}},
        {"bit-indexed-member", 30, 0, {1}},
        {"bit-indexed-array", 32, 4, {1, 1}},
        {"string", 19, 0, {'A', 'B', 'C'}},
        {"string-array", 20, 25, {'h', 'i'}},
        {"string-member", 26, 1, {'x', 'y', 'z', 'w'}},
        {"string-indexed-member", 31, 0, {'q'}},
        {"program-local", 33, 0, {9, 0}},
        {"no-writer", 38, 0, Bytes(8, 1)},
        {"too-long-string", 19, 0, Bytes(22, 'L')},
    };
    for (const WriteSeed &seed : seeds) {
        Bytes input{static_cast<uint8_t>(seed.id)};
        u16(input, seed.addr);
        u16(input, static_cast<unsigned>(seed.value.size()));
        input.insert(input.end(), seed.value.begin(), seed.value.end());
        Bytes value = seed.value;
        value.resize(value.size() + 9, 0);
        Reg r = reg(seed.id, seed.addr, static_cast<uint32_t>(seed.value.size()));
        const auto replies = recorded(plc, [&](kplc::fuzz::Workspace &ws) { kplc_write(ws.drv, &ws.port.prop, &r, value.data()); });
        append_replies(input, replies);
        put("write_reply", seed.name, input);
    }
}

void catalogue_seeds(kplc::sim::Plc &plc) {
    const auto replies = recorded(plc, [](kplc::fuzz::Workspace &ws) { xplc_getlocalMSG(ws.settings()); });
    Bytes input;
    append_replies(input, replies);
    put("catalogue", "simulator", input);
    const Bytes header = hex("00 00 00 00 FF FF FF FF 00 01 00 00 0C 25");
    const auto with = [&](const Bytes &first, const Bytes &data) {
        Bytes second = header;
        second.insert(second.end(), data.begin(), data.end());
        Bytes out;
        append_replies(out, {first, second});
        return out;
    };
    const Bytes first = replies.empty() ? hex("00") : replies.front();
    // Two entries, L 10 and 6: ids at 19 and 33, names Main and Io.
    put("catalogue", "two-entries", with(first, hex("02 00 00 0A 00 05 00 4D 00 61 00 69 00 6E 00  00 01 06 00 09 00 49 00 6F 00")));
    put("catalogue", "empty", with(first, hex("00")));
    put("catalogue", "cut-entry", with(first, hex("03 00 00 0A 00 05 00 4D 00 61")));
    put("catalogue", "wide-names", with(first, hex("01 00 00 08 00 02 20 AC D8 3D DE 00 00")));
    put("catalogue", "short-len", with(first, hex("02 00 00 01 00 07 00 00 00 00 09")));
    Bytes header_only;
    append_replies(header_only, {first, Bytes(header.begin(), header.end())});
    put("catalogue", "header-only", header_only);
}

void tag_seeds() {
    std::string_view file = kplc::fuzz::kTagFile;
    std::size_t n = 0;
    while (!file.empty()) {
        const auto end = file.find('\n');
        put_text("tag_line", "file-" + std::to_string(++n), file.substr(0, end + 1));
        file.remove_prefix(end + 1);
    }
    const std::vector<std::pair<const char *, std::string_view>> lines = {
        {"lower-type", "1,Name,dint,DINT,,4,,,-1\n"},
        {"empty-type", "2,Name,,INT,,2,,,-1\n"},
        {"three-underscores", "3,T,INT,[1..3_0..1_2..2_9],2,,,-1\n"},
        {"wstring-array", "4,W,WSTRING,[0..1],84,,,-1\n"},
        {"devices", "5,D,INT,,2,,R05,-1\n"},
        {"short-device", "6,D,INT,,2,,R5,-1\n"},
        {"mode-text", "7,Main.Step,UINT,,2,,,x\n"},
        {"leading-bracket", "8,[1]x,INT,,2,,,-1\r\n"},
        {"three-indices", "9,A[1,2,3],INT,,2,,,-1\n"},
        {"two-columns", "10,Only\n"},
        {"negative-bounds", "11,N,DINT,[-5..-1_-2..2],80,,CR10,-1\n"},
        {"long-columns", "12,Name,INT,[0..1234567890123456789012345678901234567890],123456789012,xxxxxxxxxxxx,"
                         "DMDMDMDMDMDMDMDMDMDMDMDMDMDMDMDMDM,12345678901\n"},
    };
    for (const auto &[name, line] : lines) put_text("tag_line", name, line);

    put_text("tag_file", "workspace", kplc::fuzz::kTagFile);
    put_text("tag_file", "no-final-feed", "1,A,INT,,2,,,-1\n2,B,INT,,2,,,-1");
    put_text("tag_file", "long-line", std::string(300, 'x') + "\n1,A,INT,,2,,,-1\n");
    put_text("tag_file", "crlf", "1,A,INT,,2,,DM1,-1\r\n2,Main.B,BOOL,,1,,,0\r\n");
    put_text("tag_file", "blank-lines", "\n\n1,A,INT,,2,,,-1\n\n");
}

void utf_seeds() {
    const std::vector<std::pair<const char *, Bytes>> texts = {
        {"ascii", hex("20 41")},
        {"two-byte", hex("20 C3 A9")},
        {"three-byte", hex("20 E2 82 AC")},
        {"four-byte", hex("20 F0 9F 98 80")},
        {"six-byte-lead", hex("20 FE 81 82 83 84 85")},
        {"cut-sequence", hex("20 41 E2 82")},
        {"capacity-4", hex("04 41 42 43 44 45")},
        {"capacity-1", hex("01 41")},
        {"wire-euro", hex("20 00 41 20 AC")},
        {"wire-surrogates", hex("20 D8 3D DE 00")},
        {"wire-odd", hex("20 00 41 00 42 43")},
        {"wire-small-out", hex("03 20 AC 20 AC 20 AC")},
    };
    for (const auto &[name, bytes] : texts) put("utf", name, bytes);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    g_root = fs::absolute(argv[1]);
    kplc::sim::Plc plc(kplc::fuzz::kTagFile);
    tag_seeds();
    utf_seeds();
    catalogue_seeds(plc);
    read_seeds(plc);
    write_seeds(plc);
    std::fprintf(stderr, "seeds written to %s\n", g_root.c_str());
    return 0;
}
