// Limits of the write requests that a write through the driver cannot reach:
// the writers refuse such requests before building them, the builders refuse
// them again so that no half-built frame is ever sent.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "write/write_frames.hpp"

namespace {

using namespace kplc::write;

const kplc::proto::ResolveItem kTarget{0x84, {0x01, 0x02, 0x03, 0x04}};

TEST(WriteFrames, BitNumbersOutsideTheWordAndMismatchedValuesAreRefused) {
    std::array<uint8_t, kRequestSize> buf{};
    EXPECT_EQ(build_bit_write(buf, 0, kTarget, true, 15), 22u);
    EXPECT_EQ(build_bit_write(buf, 0, kTarget, true, 16), 0u);
    const std::array<uint8_t, 4> value{};
    EXPECT_EQ(build_word_write(buf, 0, kTarget, 1, value, ValueOrder::PanelWords), 0u);
    EXPECT_EQ(build_word_write(buf, 0, kTarget, 2, value, ValueOrder::PanelWords), 26u);
    const std::vector<uint8_t> largest(2 * kMaxWordsPerWrite);
    EXPECT_EQ(build_word_write(buf, 0, kTarget, kMaxWordsPerWrite, largest, ValueOrder::Wire), 22 + largest.size());
}

TEST(WriteFrames, AResolveIsNeverSentShortOfAName) {
    std::array<uint8_t, 2 * kRequestSize> big{};
    ResolveRequest empty(big, 0, -1);
    EXPECT_EQ(empty.finish(), 18u) << "a run of no elements resolves no names";

    ResolveRequest counted(big, 0, -1);
    const std::array<uint16_t, 1> name{u'B'};
    for (std::size_t i = 0; i < kMaxNamesPerResolve; ++i) ASSERT_TRUE(counted.add(name)) << i;
    EXPECT_FALSE(counted.add(name)) << "the symbol count is one byte";
    EXPECT_EQ(counted.finish(), 0u);

    std::array<uint8_t, kRequestSize> buf{};
    ResolveRequest sized(buf, 0, 5);
    const std::vector<uint16_t> long_name(200, u'x');  // 402 bytes per entry
    EXPECT_TRUE(sized.add(long_name));
    EXPECT_TRUE(sized.add(long_name));
    EXPECT_FALSE(sized.add(long_name)) << "22 + 3 * 402 bytes exceed the request buffer";
    EXPECT_EQ(sized.finish(), 0u);
}

}  // namespace
