// The command-line tool's own logic, as tables: tag lookup on the driver's
// parse of a tag file, value text <-> runtime bytes and JSON, the split into
// requests, the options, the failure diagnosis from relayed traffic, and check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>


#include "check.hpp"
#include "failure.hpp"
#include "json.hpp"
#include "kplc/tags.h"
#include "options.hpp"
#include "plan.hpp"
#include "selection.hpp"
#include "testkit/fake_plc.hpp"
#include "values.hpp"

namespace {

using namespace kplc::cli;
using ::testing::HasSubstr;
using kplc::testkit::to_hex;

constexpr const char *kTags =
    "1,Counter,DINT,,4,,DM100,-1\n2,Speed,INT,[0..9],20,,EM200,-1\n3,Title,STRING,[0..3],80,,,-1\n"
    "4,Main.Step,UINT,,2,,,0\n5,Axis[2,3],REAL,,4,,,-1\n6,Cell[1][2].Val,DINT,,4,,,-1\n"
    "7,Grid,LREAL,[1..2_0..2],48,,,-1\n8,Cube,INT,[0..1_0..2_0..3],48,,,-1\n9,Flags,BOOL,[0..31],4,,,-1\n"
    "10,Neg,DINT,[-2..2],20,,,-1\n11,Note,WSTRING,,40,,,-1\n12,Msg,STRING,,20,,,-1\n13,Mask,WORD,,2,,,-1\n"
    "14,Huge,ULINT,,8,,,-1\n15,Ratio,REAL,,4,,,-1\n16,Lamp,BOOL,,1,,MR100,-1\n17,Long,DINT,[0..299],1200,,,-1\n"
    "18,Wide,INT,[0..999],2000,,,-1\n19,Essay,STRING,,600,,,-1\n20,Precise,LREAL,[0..99],800,,,-1\n";

const TagSet &tags() {
    static const TagSet set = TagSet::parse(kTags, kplc_pase_str);
    return set;
}

Selection select(std::string_view query) {
    Lookup found = find_selection(tags(), query);
    if (!found.selection) throw std::runtime_error(found.error);
    return *found.selection;
}

const Tag &tag_of(std::string_view query) { return tags().tags()[select(query).tag]; }

std::vector<uint8_t> encode(std::string_view query, std::string_view text) {
    std::string error;
    auto bytes = encode_element(tag_of(query), text, error);
    if (!bytes) throw std::runtime_error(error);
    bytes->resize(tag_of(query).element_bytes, 0);  // a text fills its element
    return *bytes;
}

TEST(CliLookup, NamesIdsElementsRangesAndRows) {
    struct Case {
        std::string query;
        uint16_t id;  // 0: refused with `label` in the message
        uint32_t first, count;
        std::string label;
    };
    const std::vector<Case> cases = {
        {" Speed ", 2, 0, 10, "Speed"},
        {"Axis[#2,#3]", 5, 0, 1, "Axis[2,3]"},  // a scalar whose own name has indices
        {"Cell[1][2].Val", 6, 0, 1, "Cell[1,2].Val"},
        {"Grid[2][1]", 7, 4, 1, "Grid[2,1]"},   // (2-1)*3 + (1-0)
        {"Cube[1,0,1]", 8, 13, 1, "Cube[1,0,1]"},
        {"Speed[2..4]", 2, 2, 3, "Speed[2..4]"},
        {"Grid[2]", 7, 3, 3, "Grid[2]"},        // a whole row
        {"Cube[1,1..2]", 8, 16, 8, "Cube[1,1..2]"},
        {"Cube[1][0..1][3]", 0, 0, 0, "not one run"},
        {"Speed[4..2]", 0, 0, 0, "reversed"},
        {"Nope", 0, 0, 0, "unknown tag 'Nope'"},
        {"Neg[-3]", 0, 0, 0, "outside -2..2"},
    };
    for (const Case &c : cases) {
        const Lookup found = find_selection(tags(), c.query);
        if (c.id == 0) {
            EXPECT_THAT(found.error, HasSubstr(c.label)) << c.query;
            continue;
        }
        ASSERT_TRUE(found.selection) << c.query << ": " << found.error;
        EXPECT_EQ(tags().tags()[found.selection->tag].id, c.id) << c.query;
        EXPECT_EQ(found.selection->first, c.first) << c.query;
        EXPECT_EQ(found.selection->count, c.count) << c.query;
        EXPECT_EQ(found.selection->label, c.label);
    }
}

TEST(CliValues, ParsesShowsAndTypesEveryKind) {
    struct Case {
        std::string tag, input, shown, json;  // shown empty: the input must be refused
    };
    const std::vector<Case> cases = {
        {"Counter", "-2147483648", "-2147483648", "-2147483648"},
        {"Counter", "0xFFFFFFFF", "-1", "-1"},  // hexadecimal is a bit pattern
        {"Huge", "18446744073709551615", "18446744073709551615", "18446744073709551615"},
        {"Mask", "16#00FF", "0x00FF", "255"},
        {"Ratio", "0.1", "0.1", "0.1"},
        {"Grid[1,0]", "-1.5e300", "-1.5e+300", "-1.5e+300"},
        {"Lamp", "OFF", "0", "false"},
        {"Msg", "tab\there \"q\"", "tab\\x09here \"q\"", "\"tab\\u0009here \\\"q\\\"\""},
        {"Msg", "caf\xE9", "caf\xE9", "\"caf\xC3\xA9\""},  // an 8-bit code page byte: Latin-1 in JSON
        {"Note", "Grüße €", "Grüße €", "\"Grüße €\""},
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
        bytes->resize(tag.element_bytes, 0);
        EXPECT_EQ(format_element(tag, *bytes), c.shown);
        EXPECT_EQ(json_selection(tag, select(c.tag), *bytes), c.json);
    }
    // The runtime's byte layout: little-endian numbers, UTF-16 high byte first.
    EXPECT_EQ(to_hex(encode("Counter", "0x11223344")), "44 33 22 11");
    EXPECT_EQ(to_hex(encode("Ratio", "1")), "00 00 80 3F");
    const auto note = encode("Note", "Ab");
    EXPECT_EQ(to_hex(std::span(note).first(4)), "00 41 00 62");
}

TEST(CliValues, SplitsWriteValuesAndShowsArrays) {
    const std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> cases = {
        {"Grid", "[[1,2,3],[4,5,6]]", {"1", "2", "3", "4", "5", "6"}},
        {"Msg", "a, b", {"a, b"}},  // one text, commas and all
        {"Title[1]", "[\"x,y\", z]", {"x,y", "z"}},
        {"Title", "\"a,b\", c ,\"q\\\"\\x41\"", {"a,b", "c", "q\"A"}},
    };
    for (const auto &[target, value, items] : cases) {
        const Selection sel = select(target);
        const Items split = split_items(tags().tags()[sel.tag], sel, value);
        if (items.empty()) EXPECT_FALSE(split.error.empty()) << value;
        else EXPECT_EQ(split.items, items) << split.error;
    }
    std::vector<uint8_t> grid;
    for (const char *v : {"1", "2", "3", "4", "5.5", "6"}) {
        const auto e = encode("Grid[1,0]", v);
        grid.insert(grid.end(), e.begin(), e.end());
    }
    EXPECT_EQ(format_selection(tag_of("Grid"), select("Grid"), grid), "[[1, 2, 3], [4, 5.5, 6]]");
    EXPECT_EQ(json_selection(tag_of("Grid"), select("Grid"), grid), "[[1,2,3],[4,5.5,6]]");
}

TEST(CliPlan, AddressesElementsInTheReadPathsUnits) {
    // BOOL: bits; numbers: bytes; strings: bytes of the flattened array.
    const std::vector<std::tuple<std::string, uint32_t, uint32_t>> cases = {
        {"Flags[5]", 5, 1}, {"Flags", 0, 32},     {"Speed[3]", 6, 2},   {"Speed[2..4]", 4, 6},
        {"Neg[1]", 12, 4},  {"Grid[2,0]", 24, 8}, {"Title[2]", 40, 20}, {"Note", 0, 40},
    };
    for (const auto &[query, addr, nums] : cases) {
        const ReadPlan plan = plan_reads(tags(), std::vector{select(query)});
        ASSERT_EQ(plan.batches.size(), 1u) << query;
        EXPECT_EQ(plan.batches[0].at(0).reg_addr, addr) << query;
        EXPECT_EQ(plan.batches[0].at(0).reg_nums, nums) << query;
    }
}

TEST(CliPlan, SplitsLongReadsIntoBatchesTheDriverAccepts) {
    const std::vector<Selection> sels = {select("Wide"), select("Counter"), select("Precise")};
    const ReadPlan plan = plan_reads(tags(), sels, ReadLimits{});
    ASSERT_GT(plan.batches.size(), 1u);
    std::vector<std::size_t> covered(sels.size(), 0);
    for (const auto &batch : plan.batches) {
        EXPECT_LE(batch.size(), ReadLimits{}.max_requests);
        std::size_t values = 14;
        std::size_t items = 17;  // the resolve reply: 24 bytes an item, 4 more per subscript of its name
        for (const ReadPart &p : batch) {
            values += p.reg_nums;  // 16/32/64-bit values take their own size on the wire
            const Tag &tag = tags().tags()[sels[p.selection].tag];
            items += p.bytes / tag.element_bytes * (24 + 4 * tag.shape->dims);
            EXPECT_EQ(p.offset, covered[p.selection]);  // parts follow each other without gaps
            covered[p.selection] += p.bytes;
        }
        EXPECT_LE(values, 4096u);
        EXPECT_LE(items, 4096u);
    }
    EXPECT_EQ(covered, (std::vector<std::size_t>{2000, 4, 800}));

}

TEST(CliOptions, AcceptsOptionsAnywhereAndRefusesUnusableLines) {
    const std::vector<std::string> good = {"--tags", "t.csv", "read", "--port", "5020", "Counter", "--plc=127.0.0.9",
                                           "-q", "--json", "-f", "-", "--timeout", "1", "--udp"};
    const ParsedOptions p = parse_options(std::vector<std::string_view>(good.begin(), good.end()));
    ASSERT_EQ(p.error, "");
    EXPECT_EQ(p.options.args, std::vector<std::string>{"Counter"});
    EXPECT_EQ(p.options.plc, 0x7F000009u);
    EXPECT_TRUE(p.options.json && p.options.udp && p.options.chatter == Chatter::Quiet);
    EXPECT_EQ(p.options.names_file, "-");
    EXPECT_EQ(names_in(" A \n# note\n\nB[2]=1\r\n"), (std::vector<std::string>{"A", "B[2]=1"}));

    const std::vector<std::pair<std::vector<std::string>, std::string>> bad = {
        {{}, "no command"},
        {{"--tags", "t", "read", "X"}, "no PLC port"},
        {{"--tags", "t", "--port", "1", "read"}, "no tag names"},
        {{"--tags", "t", "--port", "1", "write", "Counter"}, "NAME=VALUE"},
        {{"--tags", "t", "--port", "1", "--install-tags", "read", "X"}, "--install-tags needs"},
        {{"check"}, "check takes one tag file"},
        {{"--tags", "t", "-f"}, "-f needs"},
        {{"--tags", "t", "--port", "1", "--timeout", "0", "read", "X"}, "(1-65535)"},  // 0 would not wait for replies
    };
    for (const auto &[args, message] : bad)
        EXPECT_THAT(parse_options(std::vector<std::string_view>(args.begin(), args.end())).error, HasSubstr(message))
            << ::testing::PrintToString(args);
}

std::vector<uint8_t> frame(std::initializer_list<int> bytes) { return {bytes.begin(), bytes.end()}; }

TEST(CliFailure, TellsTheCauseFromTheRelayedTraffic) {
    using K = TrafficEvent::Kind;
    // A resolve of "A[#1]", "A[#2]" (global scope), and a read by location of two 1-word values.
    const auto resolve = frame({0, 0, 0, 0x1C, 0xFF, 0xFF, 0xFF, 0xE3, 0, 1, 0x0C, 0x28, 0, 1, 0, 0, 0, 2, 0, 5, 0,
                                'A', 0, '[', 0, '#', 0, '1', 0, ']', 0, 5, 0, 'A', 0, '[', 0, '#', 0, '2', 0, ']'});
    const auto read = frame({0, 0, 0, 0x18, 0xFF, 0xFF, 0xFF, 0xE7, 0, 2, 0x1E, 0x09, 0, 0, 2, 0, 0, 0,
                             0, 1, 0, 1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 4});
    // A reply of n bytes framed as the PLC frames one (the length announced is
    // n's, or more for a reply cut short), with the given status.
    const auto reply = [](std::size_t n, uint16_t status = 0, std::size_t announced = 0) {
        std::vector<uint8_t> r(n, 0);
        const auto len = static_cast<uint32_t>(std::max(n, announced) - 10);
        for (int i = 0; i < 4; ++i) {
            r[i] = static_cast<uint8_t>(len >> (24 - 8 * i));
            r[4 + i] = static_cast<uint8_t>(~r[i]);
        }
        r[10] = static_cast<uint8_t>(status >> 8);
        r[11] = static_cast<uint8_t>(status);
        return r;
    };
    const auto items = reply(24 + 41);  // two resolve items without extensions, as far as the driver reads
    std::vector<uint8_t> noise(41);
    for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 37 + 11);
    const struct { std::vector<TrafficEvent> events; Exit status; std::string message; } cases[] = {
        {{{K::ConnectFailed, {}, 111}}, kExitConnect, "cannot connect to P: Connection refused"},
        {{{K::ConnectFailed, {}, 0}}, kExitConnect, "cannot connect to P: no answer within 3 s"},
        {{{K::Request, resolve, 0}}, kExitNoAnswer, "no answer from the PLC at P within 3 s to the symbol resolve"},
        {{{K::Request, resolve, 0}, {K::Closed, {}, 0}}, kExitNoAnswer, "closed the connection without answering"},
        {{{K::Closed, {}, 0}}, kExitNoAnswer, "the PLC at P closed the connection"},
        {{{K::Request, resolve, 0}, {K::Reply, reply(41, 0, 65), 0}}, kExitShortReply,
         "too short (41 bytes): it left out A[2]"},
        {{{K::Request, resolve, 0}, {K::Reply, reply(41, 0x0103), 0}}, kExitBadReply,
         "the PLC does not know 'A[2]' (status 0x0103)"},
        {{{K::Request, resolve, 0}, {K::Reply, noise, 0}}, kExitBadReply,
         "symbol resolve request (41 bytes) is not a frame of the PLC's protocol"},
        {{{K::Request, resolve, 0}, {K::Reply, items, 0}, {K::Request, read, 0}, {K::Reply, reply(16, 0, 18), 0}},
         kExitShortReply, "read by location request was too short (16 bytes): it left out A[2]"},
        {{{K::Request, resolve, 0}, {K::Reply, items, 0}, {K::Request, read, 0}, {K::Reply, reply(14, 0x0104), 0}},
         kExitBadReply, "the PLC refused the read by location request (status 0x0104)"},
        {{{K::Request, resolve, 0}, {K::Reply, items, 0}, {K::Request, read, 0}, {K::Reply, reply(18), 0}},
         kExitBadReply, "could not use the PLC's reply to the read by location request (18 bytes)"},
        {{}, kExitFailed, ""},  // the driver refused without asking the PLC
    };
    for (const auto &c : cases) {
        const Diagnosis d = diagnose(c.events, "P", 3);
        EXPECT_EQ(d.status, c.status) << c.message;
        EXPECT_THAT(d.message, HasSubstr(c.message));
    }
}

TEST(CliCheck, ReportsEachProblemWithItsLine) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        // Tags that can only be read are notes, not faults.
        {kTags, {"11: note: read only: the driver has no writer for WSTRING", "13: note: read only", "14: note: read only",
                 "19: cannot be read: strings of more than 509 bytes"}},
        {"id,name,type\n1,A,INT,,2,,,-1\n", {"1: a header line"}},
        {"1,A,INT,,2,,,-1\n\n3,B,INT,,2,,,-1\n", {"2: blank line"}},
        {"1,A,INT,,2,,,-1\n2,B,INT,,2,,,-1", {"2: no line feed at the end"}},
        {"1,A,dint,,4,,,-1\n", {"1: unknown type 'dint'"}},
        {"1;A;INT;;2;;;-1\n", {"1: columns separated by ';'"}},
        {"1,\"A\",INT,,2,,,-1\n2,,INT,,2,,,-1\n", {"1: quoted name", "2: empty name"}},
        {"1,A,INT,,2,,,-1\n1,A,INT,,2,,,-1\n", {"2: duplicate id 1 (also line 1)", "2: duplicate name 'A' (also line 1)"}},
        {"1,A,INT,[3..1],2,,,-1\n2,B,INT,[1-3],2,,,-1\n", {"1: reversed bounds [3..1]", "2: bad bounds '[1-3]'"}},
        {"1,A,SINT,,1,,,-1\n2,S,STRING,,600,,,-1\n",
         {"1: cannot be read: the driver does not read 8-bit types", "1: cannot be written", "2: cannot be read: strings of more than 509 bytes"}},
        // Device and scope columns the driver reads otherwise than the line says.
        {"1,A,INT,,2,,XX100,-1\n2,B,INT,,2,,DM,-1\n3,C,INT,,2,,DMabc,-1\n4,D,INT,,2,,DM-5,-1\n5,E,INT,,2,,DM99999999999,-1\n"
         "6,F,INT,,2,,XDM1,-1\n7,G,INT,,2,,,xyz\n8,H,INT,,2,,,\n9,I,INT,,2,,\n10,J,INT,,2,,,-5\n11,K,INT,,2,,,4\n",
         {"1: device 'XX100' names no device area", "2: device 'DM' is shorter than 3", "3: device 'DMabc' has no device number",
          "4: device 'DM-5' has no device number", "5: device 'DM99999999999': the number", "6: device 'XDM1': 'XDM' is no device area",
          "7: scope 'xyz' is not a number", "8: empty scope column", "9: no scope column", "10: scope -5 is neither",
          "11: scope 4 makes the tag local to a program, but its name has no program prefix"}},
        // Quotes hold only what the driver reads (the last piece of a long line, up to a NUL), cut short.
        {"1," + std::string(400, 'x') + ",INT,,2,,,-1\n" + std::string("2,Ab\0cd,INT,,2,,,-1\n", 20),
         {"1: the line is 415 characters long", "1: column 1 '" + std::string(40, 'x') + "'... (147 characters) is not",
          "1: unknown type ''", "2: a NUL byte at character 5", "2: no type column"}},
        {"1,Axis[2,3],REAL,,4,,,-1\n1000,B,BOOL,,1,,MR5,-1\n", {}},
    };
    for (const auto &[file, expected] : cases) {
        std::vector<std::string> got;
        for (const Problem &p : check_tag_file(file, kplc_pase_str))
            got.push_back(std::to_string(p.line) + ": " + (p.note ? "note: " : "") + p.text);
        ASSERT_EQ(got.size(), expected.size()) << ::testing::PrintToString(got);
        for (std::size_t i = 0; i < got.size(); ++i) EXPECT_THAT(got[i], HasSubstr(expected[i]));
    }
}

}  // namespace
