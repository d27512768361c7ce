// Writes through the write entry against a scripted fake PLC on 127.0.0.1:
// for each write, the exact requests sent (or that nothing is sent), the
// result, and the link handling around it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <optional>

#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "testkit/fake_plc.hpp"
#include "harness/instance.hpp"

namespace kplc {
namespace {

using testkit::ack;
using testkit::Bytes;
using testkit::FakePlc;
using testkit::hex;

// Tag k is line k.
enum Tag : uint16_t { Speed = 1, Count, Big, A, Grid, Cube, Vals, Step, Flag, Lamp, MotorRun, CellFlag, Bits, Coils,
                      Msg, Names, Grid2, Long, Text, NoChars, Sint };
constexpr const char *kTagFile =
    "1,Speed,INT,,2,,,-1\n2,Count,DINT,,4,,DM100,-1\n3,Big,LREAL,,8,,,-1\n4,A,INT,[0..9],20,,,-1\n"
    "5,Grid,DINT,[1..3_0..4],60,,,-1\n6,Cube,INT,[0..1_0..2_0..3],48,,,-1\n7,Vals,LREAL,[0..9],80,,,-1\n"
    "8,Step,UINT,,2,,,2\n9,Flag,BOOL,,1,,MR10,-1\n10,Lamp,BOOL,,1,,,-1\n11,Motor.Run,BOOL,,1,,,-1\n"
    "12,Cell[1].Flag,BOOL,,1,,,-1\n13,Bits,BOOL,[0..31],4,,,-1\n14,Coils,BOOL,[0..15],2,,MR0,-1\n"
    "15,Msg,STRING,,20,,,-1\n16,Names,STRING,[0..4],50,,,-1\n17,Grid2,STRING,[0..1_1..3],48,,,-1\n"
    "18,Long,INT,[0..299],600,,,-1\n19,Text,STRING,,250,,,-1\n20,NoChars,STRING,,0,,,-1\n";
const std::vector<std::string> kTypesWithoutWriter{"SINT", "LINT", "USINT", "ULINT", "STIME", "DATE", "TIMEOFDAY",
                                                   "DATEANDTIME", "BYTE", "WORD", "DWORD", "LWORD", "STRING2",
                                                   "TIME", "WSTRING"};

// Every resolve is answered with area 84, location 01 02 03 04 and the given bit-number bytes 29, 30.
Bytes resolved(uint8_t byte29 = 0, uint8_t byte30 = 0) {
    return testkit::resolve({{.area = 0x84, .location = {1, 2, 3, 4}, .byte29 = byte29, .byte30 = byte30}});
}

// The names of a symbol resolve request, blank-separated (the test names are ASCII).
std::string names_in(const Bytes &r) {
    auto u16 = [&](std::size_t at) { return at + 1 < r.size() ? std::size_t(r[at] << 8 | r[at + 1]) : 0; };
    std::size_t at = u16(14) == 0 ? 16 : 22;  // global scope 00 00, program scope 8 bytes
    std::string names;
    for (std::size_t k = u16(at); k > 0; --k) {
        at += 2;
        const std::size_t units = u16(at);
        for (std::size_t u = 1; u <= units; ++u) names.push_back(static_cast<char>(u16(at + 2 * u)));
        at += 2 * units;
        if (k > 1) names.push_back(' ');
    }
    return names;
}

class WriteTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tags = kTagFile;
        for (std::size_t k = 0; k < kTypesWithoutWriter.size(); ++k)
            tags += std::to_string(Sint + k) + ",X" + std::to_string(k) + "," + kTypesWithoutWriter[k] + ",,8,,,-1\n";
        dir.write_tag_file(FakePlc::kLoopback, 0, tags);
        instance.emplace(FakePlc::kLoopback, plc.port(), 1);
    }
    void TearDown() override { kplc::harness::release_tag_tables(); }
    unsigned write(uint16_t tag, uint32_t addr, uint32_t nums, void *value, uint16_t dev_index = 0) {
        Reg reg{};
        reg.regId = tag, reg.regAddr = addr, reg.regNums = nums, reg._devIndex = dev_index;
        return kplc_write(instance->drv, &instance->port.prop, &reg, value);
    }
    std::vector<uint16_t> commands() const {
        std::vector<uint16_t> out;
        for (const Bytes &r : plc.requests()) out.push_back(static_cast<uint16_t>(r[10] << 8 | r[11]));
        return out;
    }

    harness::WorkFolder dir;
    FakePlc plc;
    std::optional<harness::Instance> instance;
};

struct Case {
    const char *what;
    uint16_t tag;
    uint32_t addr, nums;
    const char *value;  // the runtime's bytes; empty: 00 01 02 ... of `nums` bytes
    std::vector<Bytes> replies;
    unsigned result;
    // Per request: "names: ..." for a resolve, else the request's hex must end with this text.
    std::vector<std::string> sent;
    const char *printed = "";  // expected part of the output
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.what; }

class Writes : public WriteTest, public ::testing::WithParamInterface<Case> {};

TEST_P(Writes, SendExactlyTheseRequests) {
    const Case &c = GetParam();
    for (const Bytes &reply : c.replies) plc.reply(reply);
    Bytes value = hex(c.value);
    if (value.empty()) {
        value.resize(c.nums + 1);
        std::iota(value.begin(), value.end(), uint8_t{0});
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(write(c.tag, c.addr, c.nums, value.data()), c.result);
    std::string out = testing::internal::GetCapturedStdout();
    const std::string connect_line = "no matching relative net\r\n";  // the unbound connect reports itself
    if (out.starts_with(connect_line)) out.erase(0, connect_line.size());
    EXPECT_NE(out.find(c.printed), std::string::npos) << out;
    const auto requests = plc.requests();
    ASSERT_EQ(requests.size(), c.sent.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (c.sent[i].starts_with("names: "))
            EXPECT_EQ(names_in(requests[i]), c.sent[i].substr(7)) << "request " << i;
        else
            EXPECT_TRUE(testkit::to_hex(requests[i]).ends_with(c.sent[i])) << i << ": " << testkit::to_hex(requests[i]);
    }
    if (c.result == ER_OK && *c.printed == '\0') {
        EXPECT_EQ(out, "") << "a successful write prints nothing";
    }
}

const Bytes R = resolved();
const std::string kRead = "00 00 00 10 FF FF FF EF 00 03 1E 09 00 00 01 00 00 00 00 84 00 01 01 02 03 04";

INSTANTIATE_TEST_SUITE_P(E2E, Writes, ::testing::Values(
    Case{"int", Speed, 0, 2, "34 12", {R, ack()}, ER_OK,
         {"00 00 00 14 FF FF FF EB 00 00 0C 28 00 01 00 00 00 01 00 05 00 53 00 70 00 65 00 65 00 64",
          "00 00 00 0E FF FF FF F1 00 01 1E 01 00 84 00 00 00 01 01 02 03 04 12 34"}},
    Case{"dint", Count, 0, 4, "44 33 22 11", {R, ack()}, ER_OK,
         {"names: Count", "00 00 00 10 FF FF FF EF 00 01 1E 01 00 84 00 00 00 02 01 02 03 04 33 44 11 22"}},
    // A scalar write sends the tag's whole value whatever the count says.
    Case{"int_count_0", Speed, 0, 0, "34 12", {R, ack()}, ER_OK, {"names: Speed", "00 00 00 01 01 02 03 04 12 34"}},
    Case{"int_count_1", Speed, 0, 1, "34 12", {R, ack()}, ER_OK, {"names: Speed", "00 00 00 01 01 02 03 04 12 34"}},
    Case{"dint_count_0", Count, 0, 0, "44 33 22 11", {R, ack()}, ER_OK, {"names: Count", "01 02 03 04 33 44 11 22"}},
    Case{"dint_count_1", Count, 0, 1, "44 33 22 11", {R, ack()}, ER_OK, {"names: Count", "01 02 03 04 33 44 11 22"}},
    Case{"dint_count_3", Count, 0, 3, "44 33 22 11", {R, ack()}, ER_OK, {"names: Count", "01 02 03 04 33 44 11 22"}},
    Case{"lreal_count_0", Big, 0, 0, "00 01 02 03 04 05 06 07", {R, ack()}, ER_OK,
         {"names: Big", "00 04 01 02 03 04 01 00 03 02 05 04 07 06"}},
    Case{"lreal_count_1", Big, 0, 1, "00 01 02 03 04 05 06 07", {R, ack()}, ER_OK,
         {"names: Big", "00 04 01 02 03 04 01 00 03 02 05 04 07 06"}},
    Case{"lreal_count_7", Big, 0, 7, "00 01 02 03 04 05 06 07", {R, ack()}, ER_OK,
         {"names: Big", "00 04 01 02 03 04 01 00 03 02 05 04 07 06"}},
    Case{"lreal", Big, 0, 8, "00 01 02 03 04 05 06 07", {R, ack()}, ER_OK,
         {"names: Big", "00 00 00 14 FF FF FF EB 00 01 1E 01 00 84 00 00 00 04 01 02 03 04 01 00 03 02 05 04 07 06"}},
    Case{"program_local", Step, 0, 2, "02 01", {R, ack()}, ER_OK,
         {"00 00 00 18 FF FF FF E7 00 00 0C 28 00 01 01 01 00 02 00 00 00 00 00 01 00 04 00 53 00 74 00 65 00 70",
          "01 02"}},
    Case{"word_reply_of_12_bytes", Speed, 0, 2, "34 12", {R, ack(12)}, ER_INVALID, {"names: Speed", "12 34"}},
    Case{"word_reply_of_13_bytes", Speed, 0, 2, "34 12", {R, ack(13)}, ER_OK, {"names: Speed", "12 34"}},
    Case{"dword_reply_of_1_byte", Count, 0, 4, "", {R, hex("00")}, ER_OK, {"names: Count", "01 00 03 02"}},
    Case{"resolve_reply_without_location", Speed, 0, 2, "34 12", {ack(24)}, ER_INVALID, {"names: Speed"},
         "[PLC] resolve response for Speed too short (24 bytes)"},
    // Offsets and counts arrive in bytes; runs name every element and write from the first.
    Case{"int_run", A, 4, 6, "", {R, ack()}, ER_OK,
         {"names: A[#2] A[#3] A[#4]", "00 84 00 00 00 03 01 02 03 04 01 00 03 02 05 04"}},
    Case{"dint_2d", Grid, 28, 8, "", {R, ack()}, ER_OK,
         {"names: Grid[#2,#2] Grid[#2,#3]", "00 00 00 04 01 02 03 04 01 00 03 02 05 04 07 06"}},
    Case{"int_3d", Cube, 26, 2, "", {R, ack()}, ER_OK, {"names: Cube[#1,#0,#1]", "00 00 00 01 01 02 03 04 01 00"}},
    Case{"lreal_run", Vals, 16, 16, "", {R, ack()}, ER_OK,
         {"names: Vals[#2] Vals[#3]", "00 00 00 08 01 02 03 04 01 00 03 02 05 04 07 06 09 08 0B 0A 0D 0C 0F 0E"}},
    Case{"run_of_no_element", Long, 0, 1, "", {R, ack()}, ER_OK,
         {"00 00 00 08 FF FF FF F7 00 00 0C 28 00 01 00 00 00 00", "00 00 00 00 01 02 03 04"}},
    Case{"run_over_255_names", Long, 0, 512, "", {}, ER_INVALID, {}, "[PLC] array write of 256 elements to Long"},
    Case{"run_over_255_words", Grid, 0, 512, "", {}, ER_INVALID, {}, "[PLC] array write of 128 elements to Grid"},
    Case{"run_over_1024_bytes", Long, 0, 200, "", {}, ER_INVALID, {}, "[PLC] names of 100 elements of Long do not fit"},
    // Single bits: set/reset on MR (class 11), masked word-area write elsewhere (bit 5 here).
    Case{"mr_set", Flag, 0, 1, "03", {R, ack()}, ER_OK,
         {"names: Flag", "00 00 00 06 FF FF FF F9 00 01 32 00 01 11 03 04"}},
    Case{"mr_reset", Flag, 0, 1, "02", {R, ack()}, ER_OK, {"names: Flag", "00 01 33 00 01 11 03 04"}},
    Case{"word_area_set", Lamp, 0, 1, "01", {resolved(0, 5), ack()}, ER_OK,
         {"names: Lamp", "00 00 00 0C FF FF FF F3 00 01 1E 03 00 01 84 01 02 03 04 01 00 20"}},
    Case{"word_area_reset", Lamp, 0, 1, "00", {resolved(0, 5), ack()}, ER_OK, {"names: Lamp", "00 FF DF"}},
    Case{"bit_status_refused", Lamp, 0, 1, "01", {resolved(0, 5), ack(14, 0x11)}, ER_INVALID,
         {"names: Lamp", "01 00 20"}},
    Case{"bit_16_not_written", Lamp, 0, 1, "01", {resolved(0, 16)}, ER_INVALID, {"names: Lamp"},
         "[PLC] bit number 16 of Lamp is outside the word"},
    // Members: the plain bit write is refused, so the word is read, changed and written back.
    Case{"member_set", MotorRun, 0, 1, "01",
         {resolved(0, 2), ack(14, 0x11), resolved(0, 2), testkit::values(hex("00 F0")), ack()}, ER_OK,
         {"names: Motor.Run", "01 00 04", "names: Motor.Run", kRead,
          "00 04 1E 01 00 84 00 00 00 01 01 02 03 04 00 F4"}},
    Case{"member_already_clear", MotorRun, 0, 1, "00",
         {resolved(0, 2), ack(14, 1), resolved(0, 2), testkit::values(hex("00 F0")), ack()}, ER_OK,
         {"names: Motor.Run", "00 FF FB", "names: Motor.Run", kRead, "01 02 03 04 00 F0"}},
    // A single bit takes the lowest bit of its value byte: 02 clears.
    Case{"member_value_02_clears", MotorRun, 0, 1, "02",
         {resolved(0, 2), ack(14, 1), resolved(0, 2), testkit::values(hex("00 F0")), ack()}, ER_OK,
         {"names: Motor.Run", "00 FF FB", "names: Motor.Run", kRead, "01 02 03 04 00 F0"}},
    Case{"indexed_member_clear", CellFlag, 0, 1, "00", {resolved(0, 2), testkit::values(hex("00 04")), ack()}, ER_OK,
         {"names: Cell[#1].Flag", "00 01 1E 09 00 00 01 00 00 00 00 84 00 01 01 02 03 04", "01 02 03 04 00 00"}},
    Case{"indexed_member_bit_258", CellFlag, 0, 1, "01", {resolved(1, 2)}, ER_INVALID, {"names: Cell[#1].Flag"},
         "[PLC] bit number 258 of Cell[#1].Flag is outside the word"},
    // Multi-bit writes: one value byte per bit, element i takes the lowest bit of byte i.
    Case{"bits_on_word_area", Bits, 18, 3, "01 00 03", {R, ack(), R, ack(), R, ack()}, ER_OK,
         {"names: Bits[#18]", "00 01 1E 03 00 01 84 01 02 03 04 01 00 04", "names: Bits[#19]", "00 FF F7",
          "names: Bits[#20]", "01 00 10"}},
    Case{"bits_unresolved_skipped", Bits, 0, 2, "01 01", {ack(14), R, ack()}, ER_OK,
         {"names: Bits[#0]", "names: Bits[#1]", "01 00 02"},
         "[PLC] resolve response for Bits[#0] too short (14 bytes)"},
    Case{"bits_on_mr", Coils, 3, 2, "01 02", {R, ack(), R, ack()}, ER_OK,
         {"names: Coils[#3]", "00 01 32 00 01 11 03 04", "names: Coils[#4]", "00 03 33 00 01 11 03 04"}},
    Case{"bits_over_256", Bits, 0, 257, "", {}, ER_INVALID, {}, "[PLC] BOOL write of 257 bits to Bits exceeds 256"},
    // Text: the name points at the first character; odd text gets a fill byte.
    Case{"text", Msg, 0, 3, "41 42 43 58", {R, ack()}, ER_OK,
         {"names: Msg[#0]", "00 00 00 10 FF FF FF EF 00 01 1E 01 00 84 00 00 00 02 01 02 03 04 41 42 43 00"}},
    Case{"empty_text", Msg, 0, 0, "", {R, ack()}, ER_OK,
         {"names: Msg[#0]", "00 00 00 0C FF FF FF F3 00 01 1E 01 00 84 00 00 00 00 01 02 03 04"}},
    Case{"text_in_array", Names, 25, 2, "", {R, ack()}, ER_OK, {"names: Names[#2][#5]", "00 01 01 02 03 04 00 01"}},
    Case{"text_in_2d_array", Grid2, 44, 2, "", {R, ack()}, ER_OK, {"names: Grid2[#1,#3][#4]", "00 01"}},
    Case{"odd_text_filled_to_242_bytes", Text, 0, 241, "", {R, ack()}, ER_OK, {"names: Text[#0]", "EE EF F0 00"}},
    Case{"text_longer_than_string", Msg, 0, 22, "", {}, ER_INVALID, {}, "[PLC]STRING not support mulity write!!!\r\n"},
    Case{"text_over_242_bytes", Text, 0, 243, "", {}, ER_INVALID, {}, "[PLC] string write of 243 bytes to Text exceeds 242 bytes"},
    Case{"string_of_no_character", NoChars, 0, 1, "", {}, ER_INVALID, {}, "[PLC] string tag NoChars has no characters"},
    Case{"tag_id_0", 0, 0, 2, "", {}, ER_INVALID, {},
         "[PLC] tag id 4294967295 is not exist in this tag list ./driver/PLC7F000001_0.csv, at line: 2514\r\n"}),
    [](const auto &info) { return std::string(info.param.what); });

TEST_F(WriteTest, TypesWithoutAWriterSendNothingAndKeepTheLink) {
    Bytes value(8, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(write(Speed, 0, 2, nullptr), static_cast<unsigned>(ER_INVALID)) << "no value bytes";
    EXPECT_NE(testing::internal::GetCapturedStdout().find("[PLC] write without value bytes"), std::string::npos);
    for (std::size_t k = 0; k < kTypesWithoutWriter.size(); ++k) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(write(static_cast<uint16_t>(Sint + k), 0, 8, value.data()), KPLC_ER_NO_WRITER)
            << kTypesWithoutWriter[k];
        EXPECT_NE(testing::internal::GetCapturedStdout().find(
                      "write error regId(" + std::to_string(Sint + k) + ")-regNums(8)-regAddr(0) \r\n"),
                  std::string::npos);
    }
    plc.reply(R).reply(ack());
    EXPECT_EQ(write(Speed, 0, 2, value.data()), static_cast<unsigned>(ER_OK));
    EXPECT_EQ(commands(), (std::vector<uint16_t>{0x0C28, 0x1E01})) << "the first request is the write's own";
    EXPECT_EQ(plc.connections(), 1u);
}

TEST_F(WriteTest, ALostLinkIsRestartedWithItsCatalogueBeforeTheWriteReturns) {
    plc.reply(R).silence().reply(testkit::catalogue_first()).reply(testkit::catalogue({{4, u"Main"}}));
    Bytes value = hex("34 12");
    EXPECT_EQ(write(Speed, 0, 2, value.data()), static_cast<unsigned>(ER_INVALID));
    EXPECT_EQ(commands(), (std::vector<uint16_t>{0x0C28, 0x1E01, 0x0C2C, 0x0C25}));
    EXPECT_EQ(plc.connections(), 2u);
    EXPECT_TRUE(state().link.up);
    EXPECT_EQ(state().link.catalogue_size, 1u);
    plc.reply(R).reply(ack());
    EXPECT_EQ(write(Speed, 0, 2, value.data()), static_cast<unsigned>(ER_OK));
    EXPECT_EQ(testkit::to_hex(plc.requests()[4]).substr(24, 5), "00 02") << "the sequence runs on";
}

TEST_F(WriteTest, ABitLoopStopsAtALostLink) {
    plc.reply(R).reply(ack()).silence().reply(testkit::catalogue_first()).reply(testkit::catalogue({}));
    Bytes value = hex("01 01 01");
    EXPECT_EQ(write(Coils, 3, 3, value.data()), static_cast<unsigned>(ER_INVALID));
    EXPECT_EQ(commands(), (std::vector<uint16_t>{0x0C28, 0x3200, 0x0C28, 0x0C2C, 0x0C25}));
}

// Under their exported names the writers find their tag themselves and take
// offset and length in the records' units, as the dispatch leaves them in the
// caller's records: elements, 32-bit units for 64-bit tags.
TEST_F(WriteTest, ExportedWritersTakeTheRecordsUnits) {
    Bytes value = hex("00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F");
    PLC_DRV_REG_ADDR reg_addr{};
    reg_addr.reg_id = Vals, reg_addr.reg_addr = 16;
    PLC_DRV_BUFF buff{16, value.data()};
    plc.reply(R).reply(ack());
    ASSERT_EQ(zel_plc_write(&reg_addr, &buff, instance->settings(), 0), static_cast<unsigned>(ER_OK));
    EXPECT_EQ(std::pair(reg_addr.reg_addr, buff.length), std::pair(4u, 4u));
    char file[] = "./driver/PLC7F000001_0.csv";
    kplc_plc_tag *table = kplc_get_tagtable(&state().write_tags, file);
    ASSERT_NE(table, nullptr);
    struct Row {
        const char *what;
        unsigned (*writer)(KPLC_WRITER_ARGS);
        int tag;
        uint32_t addr, length;
        const char *names;  // of the resolve; empty: nothing is sent
        const char *tail;   // of the write
    };
    const Row rows[] = {
        {"64-bit run halved", zel_plc_write_array_4words, Vals, 4, 2, "Vals[#2]",
         "00 00 00 04 01 02 03 04 01 00 03 02 05 04 07 06"},
        {"32-bit run", zel_plc_write_array_dwords, Grid, 7, 1, "Grid[#2,#2]", "00 00 00 02 01 02 03 04 01 00 03 02"},
        {"text from a character", zel_plc_write_array_struct_string, Names, 25, 2, "Names[#2][#5]",
         "00 00 00 01 01 02 03 04 00 01"},
        {"scalar ignores the run", zel_plc_write_4words, Big, 9, 9, "Big", "00 00 00 04 01 02 03 04 01 00 03 02 05 04 07 06"},
        {"tag beyond the table", zel_plc_write_words, 999, 0, 1, "", ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const std::size_t before = plc.requests().size();
        if (*row.names != '\0') plc.reply(R).reply(ack());
        reg_addr.reg_addr = row.addr, buff.length = row.length;
        const unsigned want = *row.names != '\0' ? ER_OK : ER_INVALID;
        EXPECT_EQ(row.writer(&reg_addr, &buff, instance->settings(), table, row.tag - 1), want);
        const auto requests = plc.requests();
        ASSERT_EQ(requests.size() - before, *row.names != '\0' ? 2u : 0u);
        if (*row.names == '\0') continue;
        EXPECT_EQ(names_in(requests[before]), row.names);
        EXPECT_TRUE(testkit::to_hex(requests[before + 1]).ends_with(row.tail)) << testkit::to_hex(requests[before + 1]);
    }
}

}  // namespace
}  // namespace kplc
