// The simulator's request handling, frame by frame: what it resolves, where it
// places variables, and how it answers what it cannot understand.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "plc.hpp"
#include "protocol/names.hpp"
#include "tools/sim_requests.hpp"

namespace kplc::simtest {
namespace {

using sim::kGlobal;
using testkit::hex;
using testkit::to_hex;

constexpr const char *kTags =
    "1,Count,DINT,,4,,DM100,-1\n"
    "2,Speed,INT,[1..4],8,,,-1\n"
    "3,Lamp,BOOL,,1,,MR10,-1\n"
    "4,Ready,BOOL,,1,,,-1\n"
    "5,Alarm,BOOL,,1,,,-1\n"
    "6,Flags,BOOL,[0..31],4,,,-1\n"
    "7,Grid,INT,[0..2_1..3],18,,,-1\n"
    "8,Cube,INT,[0..1_0..2_-1..2],48,,,-1\n"
    "9,Title,STRING,,9,,,-1\n"
    "10,Lines,STRING,[0..2],30,,,-1\n"
    "11,Cell[1][2].Val,DINT,,4,,,-1\n"
    "12,Main.Step,UINT,,2,,,3\n"
    "13,Main.Level,INT,,2,,,5\n"
    "14,Aux.Step,UINT,,2,,,4\n";

constexpr uint8_t kNoDevice = 30;
constexpr uint8_t kDm = 6;
constexpr uint8_t kMr = 17;

class SimPlc : public ::testing::Test {
protected:
    sim::Plc plc{kTags};

    Bytes ask(const Bytes &request) { return plc.handle(request); }

    // The one item of resolving `name`; fails the test when there is none.
    Item resolve(int scope, const std::u16string &name) {
        const auto reply = ask(resolve_request(7, scope, {name}));
        const auto found = items(reply);
        EXPECT_EQ(found.size(), 1u) << "no item for the name";
        return found.empty() ? Item{} : found[0];
    }
    Bytes read(uint8_t area, uint32_t location, uint16_t words) {
        const auto reply = ask(read_request(1, {{area, words, location}}));
        EXPECT_EQ(status(reply), sim::kStatusOk);
        return data(reply);
    }
};

// The catalogue lists each program once, with the mode column of its first tag
// as its id, in the layout the driver parses (count at 14, L at 17, id at 19,
// name at 20; next entry at 15 + L + 4).
TEST_F(SimPlc, ProgramCatalogueListsProgramsWithTheIdOfTheirFirstTag) {
    EXPECT_EQ(to_hex(ask(catalogue_request(Command::ProgramCatalogue, 1))),
              "00 00 00 1F FF FF FF E0 00 01 00 00 0C 25 "
              "02 "
              "00 00 0A 00 03 00 4D 00 61 00 69 00 6E 00 "
              "00 01 08 00 04 00 41 00 75 00 78 00");
    const auto first = ask(catalogue_request(Command::FirstCatalogue, 0));
    EXPECT_GT(first.size(), 14u);
    EXPECT_EQ(status(first), sim::kStatusOk);
}

TEST_F(SimPlc, ProgramLocalNamesResolveOnlyInTheirProgramsScope) {
    const auto main_step = resolve(3, u"Step");
    const auto aux_step = resolve(4, u"Step");
    EXPECT_NE(main_step.location, aux_step.location);
    // Level belongs to Main, whose id is 3 whatever its own mode column says.
    resolve(3, u"Level");
    for (const auto &[scope, name] : std::vector<std::pair<int, std::u16string>>{
             {kGlobal, u"Step"}, {5, u"Level"}, {3, u"Count"}, {0, u"Step"}}) {
        EXPECT_TRUE(items(ask(resolve_request(1, scope, {name}))).empty());
    }
}

// The driver's writers put a whole run of elements at the first element's
// location, and its bit writers name a BOOL array bit by the element offset.
// So every element of an array must lie at first + e * (its words), row-major,
// and element e of a BOOL array at bit e of a word-aligned run; characters are
// byte addressed. Names are formed by the driver's own naming code.
TEST_F(SimPlc, ElementsLieContiguouslyInRowMajorOrderAsTheDriverNamesThem) {
    for (const auto &tag : plc.tags().tags()) {
        const auto &rec = tag.rec;
        if (rec.attr == NORMAL) continue;
        std::array<char, 256> name{};
        const auto location = [&](uint32_t e, uint32_t c) -> uint32_t {
            const auto len = tag.is_string ? proto::string_element_name(name, rec, e, c)
                                           : proto::element_name(name, rec, rec.attr, e);
            EXPECT_TRUE(len);
            const auto found = len ? plc.tags().resolve(tag.scope, std::string_view(name.data(), *len)) : std::nullopt;
            EXPECT_TRUE(found) << name.data();
            return found ? found->location : 0;
        };
        const uint32_t first = location(0, 0);
        for (uint32_t e = 1; e < tag.elements; ++e) {
            if (tag.is_string) {
                // Word aligned, and far enough apart for the text and its terminator.
                EXPECT_EQ(location(e, 0) % 16, 0u) << name.data();
                EXPECT_GE(location(e, 0) - location(e - 1, 0), 8 * (tag.text_bytes + 1)) << name.data();
            } else if (rec.bits == 1) {
                EXPECT_EQ(location(e, 0), first + e) << name.data();
            } else {
                EXPECT_EQ(location(e, 0), first + e * rec.bits) << name.data();  // 16 location units per word
            }
        }
        for (uint32_t c = 0; tag.is_string && c < tag.text_bytes; ++c) {
            EXPECT_EQ(location(tag.elements - 1, c), location(tag.elements - 1, 0) + 8 * c) << name.data();
        }
        if (rec.bits == 1) {
            EXPECT_EQ(first & 15, 0u) << rec.name;
        }
    }
}

TEST_F(SimPlc, NamesOutsideTheTagsShapesAreNotResolved) {
    const std::vector<std::u16string> unknown = {
        u"Nope",         u"Speed[#0]",      u"Speed[#5]",       u"Speed[#1,#1]",  u"Count[#0]",
        u"Title[#9]",    u"Title[#-1]",     u"Lines[#3][#0]",   u"Lines[#0][#10]", u"Lines[#0][#1,#2]",
        u"Speed[1]",     u"Speed[#]",       u"Speed[#1",        u"Speed[#+1]",    u"Speed[#99999999999]",
        u"Speed[#1][#1]", u"Grid[#1]",       u"Cube[#0,#0,#-2]", u"",              u"Speed[#-]",
        u"Lines[#0]x",   u"Speed[#1]]",     u"[#1]",            u"Step",
    };
    for (const auto &name : unknown) {
        const auto reply = ask(resolve_request(2, kGlobal, {name}));
        EXPECT_EQ(status(reply), sim::kStatusUnknownName);
        // The read path takes a reply of 24 bytes or fewer as a failure.
        EXPECT_LE(reply.size(), 24u);
        EXPECT_TRUE(items(reply).empty());
    }
    // Resolution stops at the first unknown name: no item for it or after it.
    const auto reply = ask(resolve_request(2, kGlobal, {u"Count", u"Nope", u"Speed[#1]"}));
    EXPECT_EQ(status(reply), sim::kStatusUnknownName);
    EXPECT_EQ(items(reply).size(), 1u);
}

// Each item carries the name's subscripts as extensions; the driver steps over
// them with the count at item byte 40.
TEST_F(SimPlc, ItemsCarryTheSubscriptsAsExtensions) {
    const auto reply = ask(resolve_request(2, kGlobal, {u"Lines[#2][#5]", u"Cube[#1,#0,#-1]", u"Count"}));
    const auto found = items(reply);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].extensions, 2);
    EXPECT_EQ(found[1].extensions, 3);
    EXPECT_EQ(found[2].extensions, 0);
    EXPECT_EQ(found[2].area, kDm);
    EXPECT_EQ(to_hex(std::span(reply).subspan(17 + 24, 8)), "00 00 00 02 00 00 00 05");
    EXPECT_EQ(to_hex(std::span(reply).subspan(17 + 32 + 24, 12)), "00 00 00 01 00 00 00 00 FF FF FF FF");
    EXPECT_EQ(reply.size(), 17u + 32 + 36 + 24);
}

// The read path takes a BOOL's bit from the low four bits of item byte 25 on
// bit devices, from byte 30 elsewhere; the bit writers take byte 30 or bytes
// 29-30. Both must name the same bit.
TEST_F(SimPlc, BoolItemsNameTheirBitInTheLocationAndInBytes29And30) {
    for (const auto *name : {u"Lamp", u"Ready", u"Alarm", u"Flags[#0]", u"Flags[#15]", u"Flags[#16]", u"Flags[#31]"}) {
        const auto item = resolve(kGlobal, name);
        EXPECT_EQ(item.byte29, 0);
        EXPECT_EQ(item.byte30, item.location & 15);
    }
    EXPECT_EQ(resolve(kGlobal, u"Lamp").area, kMr);
    const auto ready = resolve(kGlobal, u"Ready");
    const auto alarm = resolve(kGlobal, u"Alarm");
    EXPECT_EQ(ready.location >> 4, alarm.location >> 4) << "scalar BOOLs share a word";
    EXPECT_NE(ready.location & 15, alarm.location & 15);
}

// Words come back in entry order. In device areas a word operation starts at
// the word and ignores the bit number still in the location (the read path
// sends a BOOL's location as the item gave it).
TEST_F(SimPlc, WordsWrittenReadBackInEntryOrderFromTheWordOfTheLocation) {
    const auto count = resolve(kGlobal, u"Count");
    const auto speed2 = resolve(kGlobal, u"Speed[#2]");
    EXPECT_EQ(status(ask(word_write_request(3, count.area, count.location | 9, hex("33 44 11 22")))), sim::kStatusOk);
    EXPECT_EQ(status(ask(word_write_request(4, speed2.area, speed2.location, hex("12 34 56 78")))), sim::kStatusOk);
    const auto reply = ask(read_request(5, {{count.area, 2, count.location | 15}, {speed2.area, 1, speed2.location},
                                            {speed2.area, 1, speed2.location + 16}}));
    EXPECT_EQ(to_hex(reply), "00 00 00 0C FF FF FF F3 00 05 00 00 1E 09 33 44 11 22 12 34 56 78");
}

// Text written from any character reads back equal from that character, the
// way the driver asks for it: (element bytes - offset) / 2 + 1 words.
TEST_F(SimPlc, TextWrittenAtAnyCharacterReadsBackFromThatCharacter) {
    for (uint32_t offset = 0; offset + 3 <= 10; ++offset) {
        sim::Plc fresh{kTags};
        const auto name = u"Lines[#1][#" + std::u16string(1, static_cast<char16_t>(u'0' + offset)) + u"]";
        const auto at = items(fresh.handle(resolve_request(1, kGlobal, {name})));
        ASSERT_EQ(at.size(), 1u);
        // "xyz" and the fill byte the writer adds to an odd count.
        fresh.handle(word_write_request(2, at[0].area, at[0].location, hex("78 79 7A 00")));
        const auto words = static_cast<uint16_t>((10 - offset) / 2 + 1);
        const auto text = data(fresh.handle(read_request(3, {{at[0].area, words, at[0].location}})));
        EXPECT_EQ(Bytes(text.begin(), text.begin() + 3), hex("78 79 7A")) << "offset " << offset;
        // Seen from the element's first character, the text starts at the offset.
        Bytes element(3 * 12, 0);
        std::copy_n(text.begin(), 3, element.begin() + 12 + offset);
        EXPECT_EQ(fresh.peek(kGlobal, "Lines[#0][#0]", element.size()), element) << "offset " << offset;
    }
}

TEST_F(SimPlc, WordAreaBitWriteChangesOnlyTheMaskedBit) {
    const auto ready = resolve(kGlobal, u"Ready");
    for (unsigned bit : {0u, 5u, 8u, 15u}) {
        ask(word_write_request(1, ready.area, ready.location, hex("5A A5")));
        const auto mask = static_cast<uint16_t>(1u << bit);
        ask(bit_write_request(2, ready.area, ready.location, 1, mask));
        EXPECT_EQ(be16(read(ready.area, ready.location, 1), 0), 0x5AA5 | mask);
        ask(bit_write_request(3, ready.area, ready.location, 0, static_cast<uint16_t>(~mask)));
        EXPECT_EQ(be16(read(ready.area, ready.location, 1), 0), 0x5AA5 & ~mask);
    }
}

TEST_F(SimPlc, SetAndResetBitAddressTheDeviceByClassAndLow16Bits) {
    const auto lamp = resolve(kGlobal, u"Lamp");
    const auto loc16 = static_cast<uint16_t>(lamp.location);
    const auto set = ask(set_reset_request(1, true, kMr, loc16));
    EXPECT_EQ(to_hex(set), "00 00 00 04 FF FF FF FB 00 01 00 00 32 00");
    EXPECT_EQ(plc.peek_bit(kGlobal, "Lamp"), true);
    EXPECT_EQ(be16(read(kMr, lamp.location & ~0xFu, 1), 0), 1u << (lamp.location & 15));
    ask(set_reset_request(2, false, kMr, loc16));
    EXPECT_EQ(plc.peek_bit(kGlobal, "Lamp"), false);
    // A device class without variables has no memory to set.
    EXPECT_EQ(status(ask(set_reset_request(3, true, 9, loc16))), sim::kStatusBadLocation);
}

TEST_F(SimPlc, RequestsItCannotServeAreRefusedWithAHeaderAlone) {
    const auto count = resolve(kGlobal, u"Count");
    auto cut = [](Bytes b, std::size_t drop) {
        b.resize(b.size() - drop);
        return b;
    };
    const struct {
        const char *what;
        Bytes request;
        uint16_t status;
    } cases[] = {
        {"frame without command", hex("00 00 00 00 FF FF FF FF 00 09"), sim::kStatusMalformed},
        {"unknown command", hex("00 00 00 02 FF FF FF FD 00 09 12 34"), sim::kStatusUnknownCommand},
        {"resolve cut inside a name", cut(resolve_request(9, kGlobal, {u"Count"}), 1), sim::kStatusMalformed},
        {"resolve cut before a name", cut(resolve_request(9, kGlobal, {u"Count", u"Speed[#1]"}), 20),
         sim::kStatusMalformed},
        {"resolve with an unknown scope kind", hex("00 00 00 08 FF FF FF F7 00 09 0C 28 00 01 05 00 00 00"),
         sim::kStatusMalformed},
        {"read cut inside an entry", cut(read_request(9, {{kDm, 2, 0}, {kDm, 1, 0}}), 3), sim::kStatusMalformed},
        {"read past an area", read_request(9, {{kDm, 2, 0xFFFFFFF0}}), sim::kStatusBadLocation},
        {"read of an area without variables", read_request(9, {{0x55, 1, 0}}), sim::kStatusBadLocation},
        {"read of more words than the area holds", read_request(9, {{kDm, 0xFFFF, count.location}}),
         sim::kStatusBadLocation},
        {"word write with fewer words than counted", cut(word_write_request(9, kDm, 0, hex("01 02 03 04")), 1),
         sim::kStatusMalformed},
        {"word write past an area", word_write_request(9, kDm, 0x7FFFFFF0, hex("01 02")), sim::kStatusBadLocation},
        {"bit write cut", cut(bit_write_request(9, kDm, 0, 1, 1), 1), sim::kStatusMalformed},
        {"bit write past an area", bit_write_request(9, kDm, 0xFFFFFFFF, 1, 1), sim::kStatusBadLocation},
        {"set bit cut", cut(set_reset_request(9, true, kMr, 0), 1), sim::kStatusMalformed},
    };
    for (const auto &c : cases) {
        const auto reply = ask(c.request);
        ASSERT_EQ(reply.size(), 14u) << c.what;
        EXPECT_EQ(status(reply), c.status) << c.what;
        EXPECT_EQ(be16(reply, 8), 9) << c.what;
        EXPECT_NE(reply[11], 0) << c.what << ": a bit writer must see the failure in byte 11";
    }
    // Nothing was written by the refused writes.
    EXPECT_EQ(plc.peek(kGlobal, "Count", 4), Bytes(4, 0));
}

// Whatever arrives, the reply is a well-formed frame that echoes the sequence.
TEST_F(SimPlc, AnyMutationOfAValidRequestGetsAWellFormedReply) {
    const std::vector<Bytes> corpus = {
        catalogue_request(Command::ProgramCatalogue, 1),
        resolve_request(2, kGlobal, {u"Lines[#2][#5]", u"Cube[#1,#0,#-1]"}),
        resolve_request(3, 3, {u"Step"}),
        read_request(4, {{kDm, 2, 0}, {kNoDevice, 3, 16}}),
        word_write_request(5, kDm, 0, hex("01 02 03 04")),
        bit_write_request(6, kNoDevice, 5, 1, 0x20),
        set_reset_request(7, true, kMr, 3),
    };
    std::mt19937 rng(12345);
    for (int i = 0; i < 10000; ++i) {
        Bytes request = corpus[rng() % corpus.size()];
        const int edits = 1 + static_cast<int>(rng() % 4);
        for (int k = 0; k < edits; ++k) {
            switch (rng() % 4) {
                case 0: request[rng() % request.size()] = static_cast<uint8_t>(rng()); break;
                case 1: request.resize(rng() % (request.size() + 1)); break;
                case 2: request.push_back(static_cast<uint8_t>(rng())); break;
                default:
                    // Poison a count or length field with a large value.
                    if (request.size() > 14) request[12 + rng() % (request.size() - 12)] = 0xFF;
                    break;
            }
            if (request.empty()) request.push_back(0);
        }
        const auto reply = ask(request);
        ASSERT_GE(reply.size(), 14u);
        ASSERT_EQ(be32(reply, 0), reply.size() - 10);
        ASSERT_EQ(be32(reply, 4), ~be32(reply, 0));
        if (request.size() >= 10) {
            ASSERT_EQ(be16(reply, 8), be16(request, 8));
        }
    }
}

TEST(SimTagFile, LinesAreTakenAsTheDriversLoaderTakesThem) {
    const std::string long_line = std::string(255, 'x') + "2,Late,INT,,2,,,-1\n";
    sim::Plc plc("1,First,INT,,2,,,-1\n" + long_line + "3,Unterminated,INT,,2,,,-1");
    EXPECT_EQ(plc.tags().definitions(), 2u);
    EXPECT_TRUE(plc.tags().resolve(kGlobal, std::string_view("Late")));
    EXPECT_FALSE(plc.tags().resolve(kGlobal, std::string_view("Unterminated")));
}

TEST(SimTagFile, TagsThatCannotBeSimulatedAreLeftOutWithAWarning) {
    sim::Plc plc(
        "1,A,INT,,2,,,-1\n"
        "2,A,DINT,,4,,,-1\n"             // same name, same scope
        "3,Main.A,INT,,2,,,0\n"          // same name, other scope: fine
        "4,B,INT,[5..2],8,,,-1\n"        // inverted range
        "5,C,INT,[0..9999_0..9999],2,,,-1\n"  // 10^8 elements
        "6,D,INT,,2,,,-1\n");
    EXPECT_EQ(plc.warnings().size(), 3u);
    EXPECT_EQ(plc.tags().tags().size(), 3u);
    const auto a = plc.tags().resolve(kGlobal, std::string_view("A"));
    ASSERT_TRUE(a);
    EXPECT_EQ(a->tag->rec.type, 195) << "the first definition of a name wins";
    EXPECT_TRUE(plc.tags().resolve(0, std::string_view("A")));
    EXPECT_TRUE(plc.tags().resolve(kGlobal, std::string_view("D")));
}

TEST(SimTagFile, TheSampleTagFileLoadsCompletely) {
    std::ifstream in(std::string(KPLC_SOURCE_DIR) + "/examples/demo.csv");
    ASSERT_TRUE(in);
    std::stringstream text;
    text << in.rdbuf();
    sim::Plc plc(text.str());
    EXPECT_TRUE(plc.warnings().empty());
    EXPECT_EQ(plc.tags().tags().size(), plc.tags().definitions());
    // Ids run 1..N in order, as the runtime numbers tags by line.
    for (std::size_t i = 0; i < plc.tags().tags().size(); ++i) EXPECT_EQ(plc.tags().tags()[i].rec.id, i + 1);
    // Both programs are in the catalogue.
    EXPECT_EQ(plc.tags().programs().size(), 2u);
}

}  // namespace
}  // namespace kplc::simtest
