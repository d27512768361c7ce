// The line parser: every field of the records it makes from tag file lines,
// and its behaviour on short, over-long and arbitrary lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <tuple>

#include "kplc/kplc.h"
#include "tags/device_text.hpp"

namespace {

kplc_tag_str parse(const std::string &line) {
    kplc_tag_str tag{};
    std::string copy = line;
    kplc_pase_str(copy.data(), &tag);
    EXPECT_EQ(copy, line) << "the caller's text must stay as it was";
    return tag;
}

// id, name, type, bits, attr, {ar_min, ar_max, ar1_min, ar1_max, ar2_min, ar2_max}, byte_len, var_type, address,
// mode_type, local_name
using Fields = std::tuple<uint16_t, std::string, uint16_t, uint8_t, var_attr, std::array<uint32_t, 6>, uint32_t,
                          uint8_t, uint8_t, int32_t, std::string>;

Fields fields(const kplc_tag_str &t) {
    return {t.id, t.name, t.type, t.bits, t.attr, {t.ar_min, t.ar_max, t.ar1_min, t.ar1_max, t.ar2_min, t.ar2_max},
            t.byte_len, t.var_type, t.address, t.mode_type, reinterpret_cast<const char *>(t.local_name)};
}

struct LineCase { const char *line; Fields want; };

void PrintTo(const LineCase &c, std::ostream *os) { *os << c.line; }

class ParseLine : public ::testing::TestWithParam<LineCase> {};

TEST_P(ParseLine, FillsEveryField) { EXPECT_EQ(fields(parse(GetParam().line)), GetParam().want); }

constexpr uint32_t kMinus1 = 0xFFFFFFFFu;

INSTANTIATE_TEST_SUITE_P(Lines, ParseLine, ::testing::Values(
        // The reference lines of the file format.
        LineCase{"1,Counter,DINT,,4,,DM100,-1\n", {1, "Counter", 196, 32, NORMAL, {}, 4, 1, 6, -1, ""}},
        LineCase{"2,Speed,INT,[0..9],20,,EM200,-1\n", {2, "Speed", 195, 16, ARRAY, {0, 9}, 20, 1, 23, -1, ""}},
        LineCase{"3,Title,STRING,[0..3],84,,,-1\n", {3, "Title", 208, 0, STRING, {0, 3}, 22, 1, 30, -1, ""}},
        LineCase{"4,Main.Step,UINT,,2,,,0\n", {4, "Step", 199, 16, NORMAL, {}, 2, 1, 30, 0, "Main"}},
        LineCase{"5,Axis[2,3],REAL,,4,,,-1\n", {5, "Axis[#2,#3]", 202, 32, NORMAL, {}, 4, 1, 30, -1, ""}},
        LineCase{"6,Cell[1][2].Val,DINT,,4,,,-1\n", {6, "Cell[#1,2].Val", 196, 32, NORMAL, {}, 4, 3, 30, -1, ""}},
        // Ranges: dimensions by '_' count, negative bounds, failed conversions.
        LineCase{"7,M,DINT,[1..2_3..5],24,,,-1\n", {7, "M", 196, 32, ARRAY2, {1, 2, 3, 5}, 24, 1, 30, -1, ""}},
        LineCase{"8,C,BOOL,[0..1_0..2_-1..3],1,,,-1\n",
                 {8, "C", 193, 1, ARRAY3, {0, 1, 0, 2, kMinus1, 3}, 1, 1, 30, -1, ""}},
        LineCase{"9,X,INT,[1..3_0..1_2..2_9],6,,,-1\n", {9, "X", 195, 16, ARRAY, {1, 3}, 6, 1, 30, -1, ""}},
        LineCase{"10,X,INT,[2..x],6,,,-1\n", {10, "X", 195, 16, ARRAY, {2, 0}, 6, 1, 30, -1, ""}},
        // String lengths: per element plus terminator; other types keep theirs.
        LineCase{"12,S,STRING,,20,,,-1\n", {12, "S", 208, 0, STRING, {}, 21, 1, 30, -1, ""}},
        LineCase{"13,W,WSTRING,,40,,,-1\n", {13, "W", 215, 0, STRING, {}, 42, 1, 30, -1, ""}},
        LineCase{"11,T,STRING,[1..4],80,,,-1\n", {11, "T", 208, 0, STRING, {1, 4}, 21, 1, 30, -1, ""}},
        LineCase{"14,S,STRING2,[0..3],84,,,-1\n", {14, "S", 213, 0, ARRAY, {0, 3}, 84, 1, 30, -1, ""}},
        LineCase{"15,S,STRING,[0..-1],8,,,-1\n", {15, "S", 208, 0, STRING, {0, kMinus1}, 9, 1, 30, -1, ""}},
        LineCase{"16,S,STRING,[0..1],,x,,-1\n", {16, "S", 208, 0, STRING, {0, 1}, 0, 1, 30, -1, ""}},
        // No type in column 3: it joins the name and the type follows.
        LineCase{"18,Name,dint,DINT,[0..1],8,,,-1\n", {18, "Name,#dint", 196, 32, ARRAY, {0, 1}, 8, 1, 30, -1, ""}},
        LineCase{"19,Name,,INT,,2,,,-1\n", {19, "Name,#", 195, 16, NORMAL, {}, 2, 1, 30, -1, ""}},
        // Mode: -1 keeps the name whole; anything else (even no number) splits it.
        LineCase{"20,Main.Step,INT,,2,,,-1\n", {20, "Main.Step", 195, 16, NORMAL, {}, 2, 2, 30, -1, ""}},
        LineCase{"21,Main.Step,INT,,2,,,3\n", {21, "Step", 195, 16, NORMAL, {}, 2, 1, 30, 3, "Main"}},
        LineCase{"22,Main.Step,INT,,2,,,x\n", {22, "Step", 195, 16, NORMAL, {}, 2, 1, 30, 0, "Main"}},
        LineCase{"23,P.A[1].B,INT,,2,,,1\n", {23, "A[#1].B", 195, 16, NORMAL, {}, 2, 3, 30, 1, "P"}},
        LineCase{"24,[1]Odd[2],INT,,2,,,-1\r\n", {24, "[1]Odd[#2]", 195, 16, NORMAL, {}, 2, 1, 30, -1, ""}},
        // Short lines: what is missing stays 0, the device class is "none".
        LineCase{"", {0, "", 0, 0, NORMAL, {}, 0, 1, 30, 0, ""}},
        LineCase{"x,Main.Step", {0, "Main.Step", 0, 0, NORMAL, {}, 0, 2, 30, 0, ""}},
        LineCase{"70000,N,INT", {70000 & 0xFFFF, "N", 195, 16, NORMAL, {}, 0, 1, 30, 0, ""}},
        // Over-long columns are cut: 7 characters of a length, 23 of a device.
        LineCase{"25,L,INT,,123456789,,DM1,-1\n", {25, "L", 195, 16, NORMAL, {}, 1234567, 1, 6, -1, ""}},
        LineCase{"26,D,INT,,2,,xxxxxxxxxxxxxxxxxxxxxxDM,-1\n", {26, "D", 195, 16, NORMAL, {}, 2, 1, 30, -1, ""}},
        // The line feed counts towards the length of a device text that ends the line.
        LineCase{"27,N,INT,,2,,R5\n", {27, "N", 195, 16, NORMAL, {}, 2, 1, 0, 0, ""}},
        LineCase{"28,N,INT,,2,,R5", {28, "N", 195, 16, NORMAL, {}, 2, 1, 30, 0, ""}}));

TEST(DeviceClass, FirstMatchingMnemonicDecides) {
    const std::pair<const char *, uint8_t> cases[] = {
        {"R5", 30},   {"R05", 0},   {"B100", 27}, {"CR10", 1}, {"DM10", 6},  {"EM10", 23}, {"DR10", 0},
        {"W100", 28}, {"X100", 30}, {"BDM1", 6},  {"WB10", 27}, {"CRB", 27}, {"dm10", 30}, {"", 30}};
    for (const auto &[text, address] : cases) {
        EXPECT_EQ(kplc::device_class(text), address) << text;
        EXPECT_EQ(parse(std::string("1,N,INT,,2,,") + text + ",-1\n").address, address) << text;
    }
}

// The name former's insert: one character at a place inside the text or at
// its end, the rest moved up with the terminator; any other place changes nothing.
TEST(TagName, InsertPutsOneCharacterAndKeepsTheText) {
    const std::tuple<int, const char *> cases[] = {{0, "#abc"}, {1, "a#bc"}, {3, "abc#"}, {4, "abc"}, {-1, "abc"}};
    for (const auto &[pos, want] : cases) {
        char text[8] = "abc\0zzz";
        char mark[] = "#";
        insert(text, mark, pos);
        EXPECT_STREQ(text, want) << pos;
    }
}

TEST(ParseLine, WideStringArrayReportsItsElementSize) {
    ::testing::internal::CaptureStdout();
    const kplc_tag_str array = parse("1,W,WSTRING,[0..1],84,,,-1\n");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "tag wstring size(42)\r\n");
    EXPECT_EQ(array.byte_len, 44u);

    ::testing::internal::CaptureStdout();
    EXPECT_EQ(parse("1,W,WSTRING,,40,,,-1\n").byte_len, 42u);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(ParseLine, NamesThatDoNotFitAreDroppedWithoutShiftingColumns) {
    const std::string fits(255, 'n');
    EXPECT_EQ(parse("1," + fits + ",INT,,2,,DM1,-1\n").name, fits);

    // One character too many, too many '#' marks, too long a joined rest.
    const std::string cases[] = {std::string(256, 'n'), "A" + std::string(128, '['), std::string(250, 'n') + ",rest"};
    for (const std::string &symbol : cases) {
        const kplc_tag_str t = parse("1," + symbol + ",INT,,2,,DM1,-1\n");
        EXPECT_EQ(std::tuple(std::string(t.name), t.type, t.address), std::tuple("", 195, 6)) << symbol;
    }
    // Texts over 255 characters (from callers other than the loader) parse the same way.
    const std::string type_column(200, 'T');
    const kplc_tag_str t = parse("1,Name," + type_column + ",INT,,2,,DM1,-1" + std::string(400, ',') + "\n");
    EXPECT_EQ(std::string(t.name), "Name,#" + type_column);
    EXPECT_EQ(t.type, 195);
    EXPECT_EQ(t.mode_type, -1);
}

}  // namespace
