// The command-line tool's own logic: tag lookup on the driver's parse of a tag
// file, value text <-> runtime bytes, the split into requests, the options.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kplc/tags.h"
#include "options.hpp"
#include "plan.hpp"
#include "tag_set.hpp"
#include "testkit/fake_plc.hpp"
#include "testkit/workdir.hpp"
#include "values.hpp"

namespace {

using namespace kplc::cli;
using ::testing::HasSubstr;

constexpr const char *kTags =
    "1,Counter,DINT,,4,,DM100,-1\n"
    "2,Speed,INT,[0..9],20,,EM200,-1\n"
    "3,Title,STRING,[0..3],80,,,-1\n"
    "4,Main.Step,UINT,,2,,,0\n"
    "5,Axis[2,3],REAL,,4,,,-1\n"
    "6,Cell[1][2].Val,DINT,,4,,,-1\n"
    "7,Grid,LREAL,[1..2_0..2],48,,,-1\n"
    "8,Cube,INT,[0..1_0..2_0..3],48,,,-1\n"
    "9,Flags,BOOL,[0..31],4,,,-1\n"
    "10,Neg,DINT,[-2..2],20,,,-1\n"
    "11,Note,WSTRING,,40,,,-1\n"
    "12,Msg,STRING,,20,,,-1\n"
    "13,Mask,WORD,,2,,,-1\n"
    "14,Big,LINT,,8,,,-1\n"
    "15,Huge,ULINT,,8,,,-1\n"
    "16,Ratio,REAL,,4,,,-1\n"
    "17,Lamp,BOOL,,1,,MR100,-1\n"
    "18,Long,DINT,[0..299],1200,,,-1\n"
    "19,Wide,INT,[0..999],2000,,,-1\n"
    "20,Essay,STRING,,600,,,-1\n"
    "21,Precise,LREAL,[0..99],800,,,-1\n";

const TagSet &tags() {
    static const TagSet set = TagSet::parse(kTags, kplc_pase_str);
    return set;
}

Selection select(std::string_view query) {
    Lookup found = tags().find(query);
    if (!found.selection) throw std::runtime_error(found.error);
    return *found.selection;
}

const Tag &tag_of(std::string_view query) { return tags().tags()[select(query).tag]; }

std::vector<uint8_t> encode(std::string_view query, std::string_view text) {
    std::string error;
    auto bytes = encode_element(tag_of(query), text, error);
    if (!bytes) throw std::runtime_error(error);
    return *bytes;
}

TEST(CliTagFile, NumbersTagsExactlyAsTheDriversLoaderDoes) {
    const std::string long_line = "1,Long" + std::string(280, 'x') + ",INT,,2,,,-1\n";
    const std::vector<std::string> files = {
        kTags,
        "1,A,INT,,2,,,-1\n2,B,DINT,,4,,,-1",              // last line without a line feed
        long_line + "2,After,DINT,,4,,,-1\n",           // a chunk of 255 characters, then its tail
        "1,A,INT,,2,,,-1\r\n\n3,C,REAL,,4,,,-1\r\n",    // carriage returns and an empty line
    };
    for (const std::string &contents : files) {
        SCOPED_TRACE(contents.substr(0, 40));
        kplc::testkit::ScopedWorkdir dir;
        std::string name = dir.write_tag_file(0x7F000001, 0, contents);
        kplc_tag_str *table = nullptr;
        const uint32_t count = kplc_build_tagtable(&table, name.data());
        const TagSet set = TagSet::parse(contents, kplc_pase_str);
        ASSERT_EQ(set.tags().size(), count);
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_STREQ(set.tags()[i].rec.name, table[i].name) << "tag " << i + 1;
            EXPECT_EQ(set.tags()[i].rec.type, table[i].type) << "tag " << i + 1;
            EXPECT_EQ(set.tags()[i].id, i + 1);
        }
        std::free(table);
    }
}

TEST(CliLookup, FindsTagsByNameIdAndElement) {
    struct Case {
        std::string query;
        uint16_t id;
        uint32_t first, count;
        std::string label;
    };
    const std::vector<Case> cases = {
        {"Counter", 1, 0, 1, "Counter"},
        {"1", 1, 0, 1, "Counter"},
        {" Speed ", 2, 0, 10, "Speed"},
        {"Speed[3]", 2, 3, 1, "Speed[3]"},
        {"2[9]", 2, 9, 1, "Speed[9]"},
        {"Title[2]", 3, 2, 1, "Title[2]"},
        {"Main.Step", 4, 0, 1, "Main.Step"},
        {"Axis[2,3]", 5, 0, 1, "Axis[2,3]"},        // a scalar whose own name has indices
        {"Axis[#2,#3]", 5, 0, 1, "Axis[2,3]"},      // as the driver spells it
        {"Cell[1][2].Val", 6, 0, 1, "Cell[1,2].Val"},  // as the tag file spells it
        {"Cell[1,2].Val", 6, 0, 1, "Cell[1,2].Val"},
        {"Grid", 7, 0, 6, "Grid"},
        {"Grid[2,1]", 7, 4, 1, "Grid[2,1]"},        // (2-1)*3 + (1-0)
        {"Grid[2][1]", 7, 4, 1, "Grid[2,1]"},
        {"Cube[1,0,1]", 8, 13, 1, "Cube[1,0,1]"},   // 1*12 + 0*4 + 1
        {"Neg[-2]", 10, 0, 1, "Neg[-2]"},
        {"Neg[2]", 10, 4, 1, "Neg[2]"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.query);
        const Lookup found = tags().find(c.query);
        ASSERT_TRUE(found.selection) << found.error;
        EXPECT_EQ(tags().tags()[found.selection->tag].id, c.id);
        EXPECT_EQ(found.selection->first, c.first);
        EXPECT_EQ(found.selection->count, c.count);
        EXPECT_EQ(found.selection->label, c.label);
    }
}

TEST(CliLookup, RefusesWhatNamesNoElement) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Nope", "unknown tag 'Nope'"},
        {"0", "unknown tag"},
        {"22", "unknown tag"},
        {"Speed[10]", "outside 0..9"},
        {"Neg[-3]", "outside -2..2"},
        {"Counter[0]", "not an array"},
        {"Grid[1]", "2 dimension(s)"},
        {"Speed[x]", "bad index"},
        {"Speed[]", "bad index"},
    };
    for (const auto &[query, message] : cases) {
        const Lookup found = tags().find(query);
        EXPECT_FALSE(found.selection) << query;
        EXPECT_THAT(found.error, HasSubstr(message)) << query;
    }
}

TEST(CliLookup, ElementLabelsLeadBackToTheirElement) {
    for (const char *name : {"Cube", "Grid", "Neg", "Title", "Flags"}) {
        const Tag &tag = tag_of(name);
        for (uint32_t e = 0; e < tag.shape->elements; ++e) {
            const Selection sel = select(element_label(tag, e));
            EXPECT_EQ(sel.first, e) << element_label(tag, e);
        }
    }
}

TEST(CliValues, ParsesAndShowsEveryKind) {
    struct Case {
        std::string tag, input, shown;  // shown empty: the input must be refused
    };
    const std::vector<Case> cases = {
        {"Counter", "-2147483648", "-2147483648"},
        {"Counter", "2147483648", ""},
        {"Counter", "0x7FFFFFFF", "2147483647"},
        {"Counter", "0xFFFFFFFF", "-1"},  // hexadecimal is a bit pattern
        {"Counter", "12abc", ""},
        {"Speed[0]", "-32768", "-32768"},
        {"Speed[0]", "32768", ""},
        {"Main.Step", "65535", "65535"},
        {"Main.Step", "-1", ""},
        {"Big", "-9223372036854775808", "-9223372036854775808"},
        {"Huge", "18446744073709551615", "18446744073709551615"},
        {"Huge", "18446744073709551616", ""},
        {"Mask", "0xbeef", "0xBEEF"},
        {"Mask", "16#00FF", "0x00FF"},
        {"Ratio", "3.25", "3.25"},
        {"Ratio", "0.1", "0.1"},
        {"Ratio", "1e39", ""},
        {"Ratio", "abc", ""},
        {"Grid[1,0]", "0.1", "0.1"},
        {"Grid[1,0]", "-1.5e300", "-1.5e+300"},
        {"Lamp", "true", "1"},
        {"Lamp", "OFF", "0"},
        {"Lamp", "2", ""},
        {"Msg", "Hello, world", "Hello, world"},
        {"Msg", "tab\there", "tab\\x09here"},
        {"Msg", std::string(20, 'x'), std::string(20, 'x')},
        {"Msg", std::string(21, 'x'), ""},
        {"Note", "Grüße €", "Grüße €"},
        {"Note", std::string(20, 'w'), std::string(20, 'w')},
        {"Note", std::string(21, 'w'), ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.tag + " = " + c.input);
        const Tag &tag = tag_of(c.tag);
        std::string error;
        auto bytes = encode_element(tag, c.input, error);
        if (c.shown.empty()) {
            EXPECT_FALSE(bytes);
            EXPECT_FALSE(error.empty());
            continue;
        }
        ASSERT_TRUE(bytes) << error;
        bytes->resize(tag.element_bytes, 0);  // text is shorter than its element
        EXPECT_EQ(format_element(tag, *bytes), c.shown);
    }
}

TEST(CliValues, UsesTheRuntimesByteLayout) {
    using kplc::testkit::to_hex;
    EXPECT_EQ(to_hex(encode("Counter", "0x11223344")), "44 33 22 11");
    EXPECT_EQ(to_hex(encode("Speed[0]", "-2")), "FE FF");
    EXPECT_EQ(to_hex(encode("Ratio", "1")), "00 00 80 3F");
    EXPECT_EQ(to_hex(encode("Lamp", "1")), "01");
    EXPECT_EQ(to_hex(encode("Note", "Ab")), "00 41 00 62");  // code units high byte first
    EXPECT_EQ(to_hex(encode("Msg", "Ab")), "41 62");
}

TEST(CliValues, SplitsWriteValuesIntoElements) {
    struct Case {
        std::string target, value;
        std::vector<std::string> items;  // empty: refused
    };
    const std::vector<Case> cases = {
        {"Speed", "1, 2,3", {"1", "2", "3"}},
        {"Grid", "[[1,2,3],[4,5,6]]", {"1", "2", "3", "4", "5", "6"}},
        {"Speed[3]", "7", {"7"}},
        {"Speed", "1,,2", {}},
        {"Msg", "a, b", {"a, b"}},  // one text, commas and all
        {"Title[1]", "x,y", {"x,y"}},
        {"Title[1]", "[\"x,y\", z]", {"x,y", "z"}},
        {"Title", "\"a,b\", c ,\"q\\\"\\x41\"", {"a,b", "c", "q\"A"}},
        {"Title", "\"open", {}},
        {"Title", "\"a\" b", {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target + " = " + c.value);
        const Selection sel = select(c.target);
        const Items items = split_items(tags().tags()[sel.tag], sel, c.value);
        if (c.items.empty()) {
            EXPECT_FALSE(items.error.empty());
        } else {
            EXPECT_EQ(items.items, c.items) << items.error;
        }
    }
}

TEST(CliValues, ShowsWholeArraysAsNestedLists) {
    const Selection grid = select("Grid");
    std::vector<uint8_t> bytes;
    for (const char *v : {"1", "2", "3", "4", "5.5", "6"}) {
        const auto e = encode("Grid[1,0]", v);
        bytes.insert(bytes.end(), e.begin(), e.end());
    }
    EXPECT_EQ(format_selection(tag_of("Grid"), grid, bytes), "[[1, 2, 3], [4, 5.5, 6]]");

    Selection run = select("Grid[1,1]");
    run.count = 2;
    EXPECT_EQ(format_selection(tag_of("Grid"), run, std::span(bytes).subspan(8, 16)), "[2, 3]");
}

TEST(CliPlan, AddressesElementsInTheReadPathsUnits) {
    struct Case {
        std::string query;
        uint32_t addr, nums;
    };
    // BOOL: bits; numbers: bytes; strings: bytes of the flattened array.
    const std::vector<Case> cases = {
        {"Flags[5]", 5, 1}, {"Flags", 0, 32},     {"Speed[3]", 6, 2},   {"Counter", 0, 4},
        {"Neg[1]", 12, 4},  {"Grid[2,0]", 24, 8}, {"Title[2]", 40, 20}, {"Msg", 0, 20},
        {"Lamp", 0, 1},     {"Note", 0, 40},
    };
    for (const Case &c : cases) {
        const Selection sel = select(c.query);
        const ReadPlan plan = plan_reads(tags(), std::vector{sel});
        ASSERT_TRUE(plan.error.empty()) << plan.error;
        ASSERT_EQ(plan.batches.size(), 1u) << c.query;
        ASSERT_EQ(plan.batches[0].size(), 1u) << c.query;
        EXPECT_EQ(plan.batches[0][0].reg_addr, c.addr) << c.query;
        EXPECT_EQ(plan.batches[0][0].reg_nums, c.nums) << c.query;
    }
}

// Bytes of the symbol resolve request the driver builds for a batch: header,
// 00 01, a scope block of up to 8 bytes, the count, then per name its unit
// count and its UTF-16 units, computed here from the names themselves.
std::size_t resolve_bytes(const std::vector<ReadPart> &batch) {
    std::size_t bytes = 24;
    for (const ReadPart &p : batch) {
        const Tag &tag = tags().tags()[p.reg_id - 1];
        const uint32_t width = tag.rec.bits == 1 ? 1 : tag.element_bytes;
        for (uint32_t e = p.reg_addr / width; e < (p.reg_addr + p.reg_nums) / width; ++e) {
            char name[300];
            std::snprintf(name, sizeof name, "%s[#%d]", tag.rec.name, static_cast<int>(tag.shape->lo[0] + e));
            bytes += 2 + 2 * std::strlen(name);
        }
    }
    return bytes;
}

TEST(CliPlan, SplitsLongReadsIntoBatchesTheDriverAccepts) {
    const std::vector<Selection> sels = {select("Wide"), select("Counter"), select("Precise")};
    ReadLimits limits;
    limits.max_requests = 8;
    const ReadPlan plan = plan_reads(tags(), sels, limits);
    ASSERT_TRUE(plan.error.empty());
    ASSERT_GT(plan.batches.size(), 1u);
    std::vector<std::size_t> covered(sels.size(), 0);
    for (const auto &batch : plan.batches) {
        EXPECT_LE(batch.size(), limits.max_requests);
        EXPECT_LE(resolve_bytes(batch), 4096u);
        std::size_t names = 0, values = 14;
        for (const ReadPart &p : batch) {
            const Tag &tag = tags().tags()[p.reg_id - 1];
            names += p.reg_nums / tag.element_bytes;
            values += p.reg_nums;  // 16/32/64-bit values take their own size on the wire
            // Parts of one selection follow each other without gaps.
            EXPECT_EQ(p.offset, covered[p.selection]);
            covered[p.selection] += p.bytes;
        }
        EXPECT_LE(names, limits.max_names);
        EXPECT_LE(18 + 8 * names, 4096u);
        EXPECT_LE(values, 4096u);
    }
    EXPECT_EQ(covered, (std::vector<std::size_t>{2000, 4, 800}));
}

TEST(CliPlan, SplitsWritesToTheWritePathsOneByteCounts) {
    // DINT runs carry two words per element in an 8-bit word count, LREAL four.
    for (const auto &[name, per_run] : {std::pair{"Long", 127u}, std::pair{"Precise", 63u}}) {
        const Selection sel = select(name);
        const Tag &tag = tags().tags()[sel.tag];
        const std::vector<std::vector<uint8_t>> values(sel.count, std::vector<uint8_t>(tag.element_bytes, 0));
        const WritePlan plan = plan_write(tags(), sel, values);
        ASSERT_TRUE(plan.error.empty());
        uint32_t next = 0;
        for (const WritePart &p : plan.parts) {
            EXPECT_EQ(p.reg_addr, next);
            EXPECT_LE(p.reg_nums / tag.element_bytes, per_run);
            EXPECT_EQ(p.data.size(), p.reg_nums + 1);  // the spare byte
            next += p.reg_nums;
        }
        EXPECT_EQ(next, sel.count * tag.element_bytes) << name;
    }
}

TEST(CliPlan, WritesTextWithATerminatorInPiecesTheStringWriterTakes) {
    // "hi" into a 20-character string: the terminator hides the older text.
    WritePlan plan = plan_write(tags(), select("Msg"), std::vector<std::vector<uint8_t>>{encode("Msg", "hi")});
    ASSERT_EQ(plan.parts.size(), 1u);
    EXPECT_EQ(plan.parts[0].reg_nums, 3u);
    EXPECT_EQ(kplc::testkit::to_hex(std::span(plan.parts[0].data).first(3)), "68 69 00");

    // A second string element starts at its element's first character.
    plan = plan_write(tags(), select("Title[1]"), std::vector<std::vector<uint8_t>>{encode("Title[1]", "abc")});
    ASSERT_EQ(plan.parts.size(), 1u);
    EXPECT_EQ(plan.parts[0].reg_addr, 20u);

    // 600 characters: pieces of at most 240 at rising character offsets.
    plan = plan_write(tags(), select("Essay"), std::vector<std::vector<uint8_t>>{encode("Essay", std::string(599, 'e'))});
    std::vector<std::pair<uint32_t, uint32_t>> pieces;
    for (const WritePart &p : plan.parts) pieces.emplace_back(p.reg_addr, p.reg_nums);
    EXPECT_EQ(pieces, (std::vector<std::pair<uint32_t, uint32_t>>{{0, 240}, {240, 240}, {480, 120}}));
}

std::vector<std::string_view> argv_of(const std::vector<std::string> &args) {
    return {args.begin(), args.end()};
}

TEST(CliOptions, AcceptsOptionsAnywhere) {
    const std::vector<std::string> args = {"--tags", "t.csv", "read", "--port", "5020", "Counter", "--plc=127.0.0.9",
                                           "Speed[3]", "--dev", "2", "--timeout", "0", "--udp", "--trace"};
    const ParsedOptions p = parse_options(argv_of(args));
    ASSERT_TRUE(p.error.empty()) << p.error;
    const Options &o = p.options;
    EXPECT_EQ(o.command, Command::Read);
    EXPECT_EQ(o.args, (std::vector<std::string>{"Counter", "Speed[3]"}));
    EXPECT_EQ(o.plc, 0x7F000009u);
    EXPECT_EQ(o.port, 5020);
    EXPECT_EQ(o.dev, 2);
    EXPECT_EQ(o.timeout, 0);
    EXPECT_TRUE(o.udp);
    EXPECT_TRUE(o.trace);
}

TEST(CliOptions, RefusesUnusableCommandLines) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command"},
        {{"fetch"}, "unknown command"},
        {{"--tags", "t", "read", "X"}, "no PLC port"},
        {{"--tags", "t", "--port", "1", "read"}, "no tag names"},
        {{"--port", "1", "read", "X"}, "no tag file"},
        {{"--tags", "t", "--port", "0", "read", "X"}, "--port"},
        {{"--tags", "t", "--port", "65536", "read", "X"}, "--port"},
        {{"--tags", "t", "--port", "1", "--plc", "256.0.0.1", "read", "X"}, "IPv4"},
        {{"--tags", "t", "--port", "1", "--plc", "1.2.3", "read", "X"}, "IPv4"},
        {{"--tags", "t", "--port", "1", "--dev", "-1", "read", "X"}, "--dev"},
        {{"--tags", "t", "--port", "1", "read", "X", "--count", "3"}, "belong to watch"},
        {{"--tags", "t", "--port", "1", "watch", "X", "--count", "0"}, "--count"},
        {{"--tags", "t", "--port", "1", "write", "Counter"}, "NAME=VALUE"},
        {{"--tags", "t", "--port", "1", "read", "X", "--bogus"}, "unknown option --bogus"},
        {{"--tags", "t", "--port"}, "needs a value"},
        {{"--tags", "t", "--udp=1", "list"}, "takes no value"},
        {{"--tags", "t", "list", "X"}, "list takes no arguments"},
    };
    for (const auto &[args, message] : cases) {
        const ParsedOptions p = parse_options(argv_of(args));
        EXPECT_THAT(p.error, HasSubstr(message)) << ::testing::PrintToString(args);
    }
}

TEST(CliOptions, SplitsAssignmentsOutsideBrackets) {
    EXPECT_EQ(split_assignment("Speed[3]=7"), (std::pair<std::string, std::string>{"Speed[3]", "7"}));
    EXPECT_EQ(split_assignment("Msg=a=b"), (std::pair<std::string, std::string>{"Msg", "a=b"}));
    EXPECT_FALSE(split_assignment("=5"));
    EXPECT_FALSE(split_assignment("Counter"));
}

}  // namespace
