// Bit copy out of 16-bit words, the number helpers and the CRC-16 (polynomial 0xA001).
#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "kplc/support.h"
#include "support/crc16.hpp"
#include "testkit/fake_plc.hpp"

namespace {

using namespace kplc::testkit;

struct CopyCase {
    const char *what;
    std::vector<uint16_t> src, src2;  // src2 empty: BatchReadWord, otherwise BatchReadWord2
    int bit_th, bit_len;
    std::vector<uint8_t> dst, want;
};
class BitCopy : public ::testing::TestWithParam<CopyCase> {};

TEST_P(BitCopy, TouchesOnlyTheCopiedBits) {
    const CopyCase &c = GetParam();
    std::vector<uint8_t> dst = c.dst;  // exactly sized buffers: an over-read trips the sanitizer
    const unsigned char *ret = c.src2.empty()
                                   ? BatchReadWord(c.src.data(), dst.data(), c.bit_th, c.bit_len)
                                   : BatchReadWord2(c.src.data(), dst.data(), c.bit_th, c.bit_len, c.src2.data());
    EXPECT_EQ(ret, dst.data());
    EXPECT_EQ(dst, c.want);
}

INSTANTIATE_TEST_SUITE_P(Table, BitCopy,
    ::testing::Values(CopyCase{"across_a_word_boundary", {0x8000, 0x0000}, {}, 15, 2, {0xFF}, {0xFD}},
                      CopyCase{"second_word", {0x0000, 0x0004}, {}, 18, 1, {0x00}, {0x01}},
                      CopyCase{"zero_length", {0xFFFF}, {}, 3, 0, {0x00}, {0x00}},
                      CopyCase{"nine_bits_keep_the_rest", {0x01FF}, {}, 0, 9, {0x00, 0xF0}, {0xFF, 0xF1}},
                      CopyCase{"clears_too", {0x0000}, {}, 4, 9, {0xFF, 0xFF}, {0x00, 0xFE}},
                      CopyCase{"whole_words", {0x1234, 0xABCD}, {}, 0, 32, {0, 0, 0, 0}, {0x34, 0x12, 0xCD, 0xAB}},
                      CopyCase{"negative_start_refused", {0xFFFF}, {}, -1, 4, {0x00}, {0x00}},
                      CopyCase{"two_sources_across", {0x8000}, {0x0002}, 15, 3, {0x00}, {0x05}},
                      CopyCase{"second_word_of_src2", {0x0000}, {0x0000, 0x0002}, 33, 1, {0x00}, {0x01}}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(NumberHelpers, HexDigitsAndValues) {
    for (const auto &[ch, want] : {std::pair{'0', 0}, {'9', 9}, {'a', 10}, {'F', 15}, {'g', -1}, {'/', -1}, {':', -1},
                                   {'@', -1}, {'G', -1}, {'`', -1}, {'\xFF', -1}})
        EXPECT_EQ(getIndexOfSigns(ch), want) << ch;
    const struct { std::string text; int nlen; long want; } cases[] = {{"00ff", 4, 255},        {"1A2b", 4, 0x1A2B}, {"0x10", 4, 16 - 256}, {"1234", 2, 0x12},
                 {"1234", 0, 0},          {"ffffffff", 8, -1}, {"100000000", 9, 0}};
    for (auto c : cases) EXPECT_EQ(hexToDec(c.text.data(), c.nlen), c.want) << c.text << "/" << c.nlen;
    for (const auto &[result, n, want] : {std::tuple{1, 0, 1}, {1, 15, 32768}, {3, -2, 3}, {-3, 2, -12}, {1, 31, INT_MIN}})
        EXPECT_EQ(mathN(result, n), want) << result << "<<" << n;
    for (const auto &[bits, bytes, words] : {std::tuple{0u, 0u, 0u}, {9u, 2u, 1u}, {16u, 2u, 1u}, {17u, 3u, 2u}})
        EXPECT_EQ(std::pair(bit2byte_len(bits), bit2word_len(bits)), std::pair(bytes, words)) << bits;
}

unsigned crc_of(Bytes b) { return crc16(b.data(), static_cast<unsigned char>(b.size())); }

TEST(Crc16, CheckValuesAndPublishedTableEntries) {
    EXPECT_EQ(crc_of({}), 0xFFFFu);
    EXPECT_EQ(crc_of(Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0x374Bu);
    EXPECT_EQ(crc_of(hex("01 03 00 00 00 01")), 0x840Au);
    const struct { std::size_t index; uint8_t hi, lo; } entries[] = {{1, 0xC1, 0xC0}, {2, 0x81, 0xC1}, {3, 0x40, 0x01}, {7, 0x41, 0xC2}, {0x80, 0x01, 0xA0}, {255, 0x40, 0x40}};
    for (const auto &e : entries) {
        EXPECT_EQ(kplc::crc::auchCRCHi[e.index], e.hi) << e.index;
        EXPECT_EQ(kplc::crc::auchCRCLo[e.index], e.lo) << e.index;
    }
}

}  // namespace
