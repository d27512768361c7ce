// Values written through kplc_write read back equal through kplc_mulity_read,
// for every type with a writer, every shape and every name form.
#include <map>

#include "tools/e2e_fixture.hpp"
#include "tools/e2e_tags.hpp"

namespace kplc::e2e {
namespace {

using sim::kGlobal;

class Values : public EndToEnd {
protected:
    void SetUp() override { start(kTags); }
};

TEST_F(Values, ScalarsReadBackAsWritten) {
    const struct {
        uint16_t id;
        std::size_t bytes;
    } cases[] = {
        {kCount, 4},   {kSpeed, 2},      {kSetpoint, 2}, {kTotal, 4},    {kRatio, 4},     {kPrecise, 8},
        {kUptime, 8},  {kMotorSpeed, 2}, {kCellVal, 4},  {kMainStep, 2}, {kAuxCount, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("tag " + std::to_string(c.id));
        const Bytes value = pattern(c.bytes, static_cast<uint8_t>(c.id));
        EXPECT_EQ(write(c.id, 0, value), ER_OK);
        EXPECT_EQ(read(c.id, 0, static_cast<uint32_t>(c.bytes)), value);
    }
}

// Numbers travel as 16-bit words, least significant word first, each word
// high byte first; the runtime holds them little-endian.
TEST_F(Values, NumbersTravelAsWordsLeastSignificantFirst) {
    EXPECT_EQ(write(kCount, 0, hex("44 33 22 11")), ER_OK);  // 0x11223344
    EXPECT_EQ(plc().peek(kGlobal, "Count", 4), hex("33 44 11 22"));
    EXPECT_EQ(write(kPrecise, 0, hex("00 01 02 03 04 05 06 07")), ER_OK);
    EXPECT_EQ(plc().peek(kGlobal, "Precise", 8), hex("01 00 03 02 05 04 07 06"));
    ASSERT_TRUE(plc().poke(kGlobal, "Speed", hex("12 34")));
    EXPECT_EQ(read(kSpeed, 0, 2), hex("34 12"));
    ASSERT_TRUE(plc().poke(kGlobal, "Total", hex("AA BB CC DD")));
    EXPECT_EQ(read(kTotal, 0, 4), hex("BB AA DD CC"));
}

TEST_F(Values, ArrayRunsLandInPlaceAndReadBack) {
    const struct {
        uint16_t id;
        std::size_t element_bytes;
        std::size_t elements;
        std::size_t first;
        std::size_t count;
    } cases[] = {
        {kLevels, 2, 10, 3, 4},       // INT on a word device
        {kGrid, 4, 9, 2, 5},          // two dimensions, second from 1
        {kCube, 2, 24, 7, 9},         // three dimensions, third from -1
        {kWeights, 4, 8, 0, 8},       // REAL from index 1, whole array
        {kSamples, 8, 4, 1, 2},       // LREAL
        {kMotorHistory, 2, 4, 1, 3},  // member array
        {kCellVals, 4, 4, 2, 2},      // member array through an index
        {kMainBuffer, 2, 5, 0, 5},    // program-local array
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("tag " + std::to_string(c.id));
        const Bytes run = pattern(c.count * c.element_bytes, static_cast<uint8_t>(c.id));
        const auto offset = static_cast<uint32_t>(c.first * c.element_bytes);
        EXPECT_EQ(write(c.id, offset, run), ER_OK);
        Bytes whole(c.elements * c.element_bytes, 0);
        std::copy(run.begin(), run.end(), whole.begin() + offset);
        EXPECT_EQ(read(c.id, 0, static_cast<uint32_t>(whole.size()), whole.size()), whole);
        EXPECT_EQ(read(c.id, offset, static_cast<uint32_t>(run.size())), run);
    }
}

// Text goes to the character the offset names in the flattened array of
// strings, and reads back from there.
TEST_F(Values, TextReadsBackFromTheCharacterItWasWrittenAt) {
    const struct {
        uint16_t id;
        uint32_t element_size;
        uint32_t offset;
        const char *text;
    } cases[] = {
        {kTitle, 20, 0, "Hello"},
        {kTitle, 20, 7, "odd"},
        {kLines, 21, 2 * 21 + 5, "abc"},
        {kLines, 21, 3 * 21 + 20, "Z"},
        {kLabels, 10, 4 * 10 + 3, "xyzw"},
        {kMotorName, 16, 1, "run"},
        {kCellTag, 8, 0, "t1"},
        {kAuxMessage, 12, 4, "msg!"},
    };
    // What each string tag should hold, flattened, as far as it was written.
    std::map<uint16_t, Bytes> model;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const Bytes value = text(c.text);
        EXPECT_EQ(write(c.id, c.offset, value), ER_OK);
        EXPECT_EQ(read(c.id, c.offset, static_cast<uint32_t>(value.size())), value);
        // The whole element holds the text at its character and nothing else.
        const uint32_t start = c.offset - c.offset % c.element_size;
        Bytes &expected = model[c.id];
        expected.resize(std::max<std::size_t>(expected.size(), start + c.element_size), 0);
        std::copy(value.begin(), value.end(), expected.begin() + c.offset);
        EXPECT_EQ(read(c.id, start, c.element_size),
                  Bytes(expected.begin() + start, expected.begin() + start + c.element_size));
    }
}

TEST_F(Values, AReadOverSeveralStringElementsLaysTheirTextEndToEnd) {
    // Element 0 ends with "tail", element 1 holds 21 characters.
    ASSERT_EQ(write(kLines, 17, text("tail")), ER_OK);
    const Bytes second = text("ABCDEFGHIJKLMNOPQRSTU");
    ASSERT_EQ(write(kLines, 21, second), ER_OK);
    Bytes expected = text("tail");
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(read(kLines, 17, 25), expected);
}

TEST_F(Values, WideStringsReadAsStored) {
    ASSERT_TRUE(plc().poke(kGlobal, "Note", hex("00 48 00 69 04 1F")));
    EXPECT_EQ(read(kNote, 0, 6), hex("00 48 00 69 04 1F"));
}

// Every way a single BOOL is written: set/reset bit on bit devices, the
// word-area bit write, and read-modify-write for members.
TEST_F(Values, SingleBoolsTakeTheLowestBitOfTheValueByte) {
    const struct {
        uint16_t id;
        int scope;
        const char *name;
    } cases[] = {
        {kLamp, kGlobal, "Lamp"},    {kReady, kGlobal, "Ready"}, {kMotorRun, kGlobal, "Motor.Run"},
        {kCellOn, kGlobal, "Cell[#1,2].On"}, {kMainBusy, 0, "Busy"}, {kLink, kGlobal, "Link"},
        {kCoil, kGlobal, "Coil"},    {kCtl, kGlobal, "Ctl"},     {kZf, kGlobal, "Zf"},
        {kRbit, kGlobal, "Rbit"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto &[value, expected] : std::initializer_list<std::pair<int, int>>{{1, 1}, {0, 0}, {3, 1}, {2, 0}}) {
            EXPECT_EQ(write(c.id, 0, {static_cast<uint8_t>(value)}), ER_OK);
            EXPECT_EQ(plc().peek_bit(c.scope, c.name), expected != 0);
            EXPECT_EQ(read(c.id, 0, 1), Bytes{static_cast<uint8_t>(expected)});
        }
    }
}

// The BOOLs without a device share one word; writing one must keep the others.
TEST_F(Values, WritingABoolKeepsTheOtherBitsOfItsWord) {
    const struct {
        uint16_t id;
        const char *name;
    } word_bools[] = {{kReady, "Ready"}, {kAlarm, "Alarm"}, {kMotorRun, "Motor.Run"}, {kCellOn, "Cell[#1,2].On"}};
    for (const auto &b : word_bools) ASSERT_TRUE(plc().poke_bit(kGlobal, b.name, true));
    for (const auto &target : word_bools) {
        SCOPED_TRACE(target.name);
        EXPECT_EQ(write(target.id, 0, {0}), ER_OK);
        for (const auto &other : word_bools) {
            EXPECT_EQ(plc().peek_bit(kGlobal, other.name), &other == &target ? false : true) << other.name;
        }
        EXPECT_EQ(write(target.id, 0, {1}), ER_OK);
    }
}

// BOOL arrays, one value byte per bit: single bits anywhere, and runs.
TEST_F(Values, BoolArrayBitsReadBackAsWritten) {
    const struct {
        uint16_t id;
        uint32_t bits;
    } cases[] = {
        {kFlags, 32},     // no device: word-area bit writes
        {kRelays, 16},    // MR: set/reset bit per element
        {kInputs, 16},    // EM: read-modify-write per element
        {kMotorBits, 8},  // member array
        {kCellBits, 16},  // member array through an index
        {kCoils, 8},      // B: set/reset bit
        {kDmBits, 32},    // DM: word-area bit writes
        {kAuxFlags, 8},   // program-local
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("tag " + std::to_string(c.id));
        Bytes expected(c.bits, 0);
        for (uint32_t bit : {0u, 5u, c.bits - 1}) {
            EXPECT_EQ(write(c.id, bit, {1}), ER_OK) << "bit " << bit;
            expected[bit] = 1;
        }
        EXPECT_EQ(read(c.id, 0, c.bits), expected);
        const Bytes run = {1, 0, 1, 1, 0, 1};
        EXPECT_EQ(write(c.id, 2, run), ER_OK);
        std::copy(run.begin(), run.end(), expected.begin() + 2);
        EXPECT_EQ(read(c.id, 0, c.bits), expected);
        EXPECT_EQ(read(c.id, 2, static_cast<uint32_t>(run.size())), run);
    }
}

}  // namespace
}  // namespace kplc::e2e
