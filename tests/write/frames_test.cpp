// The write path's requests, byte for byte, and the limits at which a request
// is refused instead of built.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "testkit/fake_plc.hpp"
#include "write/write_frames.hpp"

namespace {

using kplc::proto::ResolveItem;
using kplc::testkit::Bytes;
using kplc::testkit::hex;
using kplc::testkit::to_hex;
using namespace kplc::write;

using Buffer = std::array<uint8_t, kRequestSize>;

std::vector<uint16_t> units_of(std::u16string_view text) { return {text.begin(), text.end()}; }

const ResolveItem kTarget{0x84, {0x01, 0x02, 0x03, 0x04}};

struct FrameCase {
    const char *what;
    std::function<std::size_t(Buffer &)> build;
    const char *expected;
};

class WriteFrames : public ::testing::TestWithParam<FrameCase> {};

TEST_P(WriteFrames, AreBuiltByteForByte) {
    const FrameCase &c = GetParam();
    Buffer buf{};
    const std::size_t length = c.build(buf);
    ASSERT_NE(length, 0u);
    EXPECT_EQ(to_hex(std::span(buf).first(length)), c.expected);
}

const Bytes kDint = hex("44 33 22 11");            // 0x11223344 as the panel holds it
const Bytes kLreal = hex("00 01 02 03 04 05 06 07");  // memory bytes of an LREAL
const Bytes kText = hex("41 42 43 00");             // "ABC" and the fill byte

INSTANTIATE_TEST_SUITE_P(
    Requests, WriteFrames,
    ::testing::Values(
        FrameCase{"global_resolve_of_Speed",
                  [](Buffer &b) { return build_resolve(b, 0x0007, -1, units_of(u"Speed")); },
                  "00 00 00 14 FF FF FF EB 00 07 0C 28 00 01 00 00 00 01 "
                  "00 05 00 53 00 70 00 65 00 65 00 64"},
        FrameCase{"program_local_resolve_carries_the_program_id",
                  [](Buffer &b) { return build_resolve(b, 0x0100, 2, units_of(u"Step")); },
                  "00 00 00 18 FF FF FF E7 01 00 0C 28 00 01 01 01 00 02 00 00 00 00 00 01 "
                  "00 04 00 53 00 74 00 65 00 70"},
        FrameCase{"resolve_of_a_run_counts_its_names",
                  [](Buffer &b) {
                      ResolveRequest r(b, 3, -1);
                      r.add(units_of(u"A[#2]"));
                      r.add(units_of(u"A[#3]"));
                      return r.finish();
                  },
                  "00 00 00 20 FF FF FF DF 00 03 0C 28 00 01 00 00 00 02 "
                  "00 05 00 41 00 5B 00 23 00 32 00 5D 00 05 00 41 00 5B 00 23 00 33 00 5D"},
        FrameCase{"word_write_swaps_the_panel_bytes",
                  [](Buffer &b) {
                      const Bytes v = hex("34 12");
                      return build_word_write(b, 1, kTarget, 1, v, ValueOrder::PanelWords);
                  },
                  "00 00 00 0E FF FF FF F1 00 01 1E 01 00 84 00 00 00 01 01 02 03 04 12 34"},
        FrameCase{"double_word_goes_low_word_first",
                  [](Buffer &b) { return build_word_write(b, 1, kTarget, 2, kDint, ValueOrder::PanelWords); },
                  "00 00 00 10 FF FF FF EF 00 01 1E 01 00 84 00 00 00 02 01 02 03 04 33 44 11 22"},
        FrameCase{"quad_word_goes_low_word_first",
                  [](Buffer &b) { return build_word_write(b, 1, kTarget, 4, kLreal, ValueOrder::PanelWords); },
                  "00 00 00 14 FF FF FF EB 00 01 1E 01 00 84 00 00 00 04 01 02 03 04 "
                  "01 00 03 02 05 04 07 06"},
        FrameCase{"text_goes_out_unchanged",
                  [](Buffer &b) { return build_word_write(b, 9, kTarget, 2, kText, ValueOrder::Wire); },
                  "00 00 00 10 FF FF FF EF 00 09 1E 01 00 84 00 00 00 02 01 02 03 04 41 42 43 00"},
        FrameCase{"word_area_bit_write_of_1_masks_the_bit",
                  [](Buffer &b) { return build_bit_write(b, 4, kTarget, true, 5); },
                  "00 00 00 0C FF FF FF F3 00 04 1E 03 00 01 84 01 02 03 04 01 00 20"},
        FrameCase{"word_area_bit_write_of_0_masks_the_complement",
                  [](Buffer &b) { return build_bit_write(b, 4, kTarget, false, 5); },
                  "00 00 00 0C FF FF FF F3 00 04 1E 03 00 01 84 01 02 03 04 00 FF DF"},
        FrameCase{"highest_bit_of_the_word",
                  [](Buffer &b) { return build_bit_write(b, 4, kTarget, true, 15); },
                  "00 00 00 0C FF FF FF F3 00 04 1E 03 00 01 84 01 02 03 04 01 80 00"},
        FrameCase{"set_bit_on_MR", [](Buffer &b) { return build_set_reset(b, 2, kTarget, 17, true); },
                  "00 00 00 06 FF FF FF F9 00 02 32 00 01 11 03 04"},
        FrameCase{"reset_bit_on_MR", [](Buffer &b) { return build_set_reset(b, 2, kTarget, 17, false); },
                  "00 00 00 06 FF FF FF F9 00 02 33 00 01 11 03 04"},
        FrameCase{"read_of_one_word", [](Buffer &b) { return build_read_word(b, 0xFFFF, kTarget); },
                  "00 00 00 10 FF FF FF EF FF FF 1E 09 00 00 01 00 00 00 00 84 00 01 01 02 03 04"}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(WriteFrameLimits, ABitNumberOutsideTheWordIsRefused) {
    Buffer buf{};
    EXPECT_EQ(build_bit_write(buf, 0, kTarget, true, 16), 0u);
    EXPECT_EQ(build_bit_write(buf, 0, kTarget, false, 255), 0u);
}

TEST(WriteFrameLimits, ValueBytesMustMatchTheWordCount) {
    Buffer buf{};
    EXPECT_EQ(build_word_write(buf, 0, kTarget, 2, hex("01 02"), ValueOrder::PanelWords), 0u);
    EXPECT_EQ(build_word_write(buf, 0, kTarget, 1, kDint, ValueOrder::Wire), 0u);
}

TEST(WriteFrameLimits, TheLargestWordWriteFitsTheRequestBuffer) {
    Buffer buf{};
    const Bytes value(2 * kMaxWordsPerWrite, 0xAA);
    EXPECT_EQ(build_word_write(buf, 0, kTarget, kMaxWordsPerWrite, value, ValueOrder::PanelWords),
              22 + value.size());
}

TEST(WriteFrameLimits, AResolveWithoutNamesIsNotBuilt) {
    Buffer buf{};
    ResolveRequest r(buf, 0, -1);
    EXPECT_EQ(r.finish(), 0u);
}

TEST(WriteFrameLimits, AResolveStopsAt255Names) {
    std::array<uint8_t, 2 * kRequestSize> buf{};  // room for more names than the count can carry
    ResolveRequest r(buf, 0, -1);
    const auto one = units_of(u"B");
    for (std::size_t i = 0; i < kMaxNamesPerResolve; ++i) ASSERT_TRUE(r.add(one)) << i;
    EXPECT_FALSE(r.add(one));
    EXPECT_EQ(r.finish(), 0u) << "a request that refused a name is not sent short of it";
}

TEST(WriteFrameLimits, AResolveThatOutgrowsTheBufferIsRefused) {
    Buffer buf{};
    ResolveRequest r(buf, 0, 5);
    const std::vector<uint16_t> long_name(200, u'x');  // 402 bytes per entry
    EXPECT_TRUE(r.add(long_name));
    EXPECT_TRUE(r.add(long_name));
    EXPECT_FALSE(r.add(long_name)) << "22 + 3 * 402 bytes exceed 1024";
    EXPECT_EQ(r.finish(), 0u);
}

}  // namespace
