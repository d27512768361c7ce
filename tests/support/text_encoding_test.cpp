// UTF-8 to 16-bit units and big-endian UTF-16 back to UTF-8, at the capacity
// limits and with text cut short by its terminator.
#include <gtest/gtest.h>

#include <algorithm>

#include "kplc/support.h"
#include "support/text_encoding.hpp"
#include "testkit/fake_plc.hpp"

namespace {

using namespace kplc::testkit;
constexpr unsigned short U = 0xAAAA;  // never written

struct ToUnitsCase {
    const char *what, *utf8;  // hex; the test adds the terminator
    int capacity, want_count;
    std::vector<unsigned short> want;  // the whole output buffer afterwards
};
class Utf8ToUnits : public ::testing::TestWithParam<ToUnitsCase> {};

TEST_P(Utf8ToUnits, ConvertsWithinTheCapacity) {
    const ToUnitsCase &c = GetParam();
    Bytes in = hex(c.utf8);  // exactly sized: an over-read trips the sanitizer
    in.push_back(0);
    std::vector<unsigned short> out(c.want.size(), U);
    EXPECT_EQ(utf8ToUnicode(in.data(), out.data(), c.capacity), c.want_count);
    EXPECT_EQ(out, c.want);
}

// The trailing 41 after a multi-byte form shows that the decoder consumed exactly its length.
INSTANTIATE_TEST_SUITE_P(Table, Utf8ToUnits,
    ::testing::Values(ToUnitsCase{"two_bytes", "C3 A9 41", 3, 2, {0xE9, 0x41, 0}},
                      ToUnitsCase{"three_bytes", "E2 82 AC 41", 3, 2, {0x20AC, 0x41, 0}},
                      ToUnitsCase{"four_bytes_low_16_bits", "F0 9F 98 80 41", 3, 2, {0xF600, 0x41, 0}},
                      ToUnitsCase{"five_bytes", "F8 80 80 81 BF 41", 3, 2, {0x7F, 0x41, 0}},
                      ToUnitsCase{"six_bytes_lead_FE", "FE 80 80 80 81 BF 41", 3, 2, {0x7F, 0x41, 0}},
                      ToUnitsCase{"overlong_and_stray", "C0 80 BF", 3, 2, {0, 0xBF, 0}},
                      ToUnitsCase{"no_continuation_check", "C3 41", 3, 1, {0xC1, 0, U}},
                      ToUnitsCase{"empty_writes_nothing", "", 3, 0, {U, U, U}},
                      ToUnitsCase{"capacity_one", "41", 1, 1, {U, U}},
                      ToUnitsCase{"cut_at_capacity", "41 42 43 44 45", 4, 4, {0x41, 0x42, 0x43, 0, U}},
                      ToUnitsCase{"lead_cut_by_terminator", "41 E2 82", 3, 1, {0x41, 0, U}},
                      ToUnitsCase{"six_byte_lead_cut_late", "FC 80 80 80 80", 3, 0, {U, U, U}}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(Utf8ToUnicodeChar, ReturnsTheLengthOrRefusesWithoutStoring) {
    unsigned char full[] = {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0}, cut[] = {0xC3, 0};
    int value = -1;
    EXPECT_EQ(utf8ToUnicodeChar(full, &value), 6);
    EXPECT_EQ(value, 0x7FFFFFFF);
    EXPECT_EQ(utf8ToUnicodeChar(cut, &value) + utf8ToUnicodeChar(nullptr, &value), 0);
    unsigned short unit = U;
    EXPECT_EQ(utf8ToUnicode(nullptr, &unit, 1) + utf8ToUnicode(full, nullptr, 1), 0);
    EXPECT_EQ(value, 0x7FFFFFFF);
}

struct ToUtf8Case {
    const char *what, *utf16be;
    int len;
    std::size_t capacity;  // 0: the exported routine with the caller's 3 bytes per unit
    const char *want;      // terminator included
};
class UnitsToUtf8 : public ::testing::TestWithParam<ToUtf8Case> {};

TEST_P(UnitsToUtf8, EncodesEachUnitByItselfWithinTheCapacity) {
    const ToUtf8Case &c = GetParam();
    Bytes in = hex(c.utf16be);
    const Bytes want = hex(c.want);
    const std::size_t room = c.capacity != 0 ? c.capacity : 3 * static_cast<std::size_t>(std::max(c.len, 0) / 2) + 1;
    Bytes out(room + 1, 0xAA);  // one guard byte
    if (c.capacity == 0)
        unicodeToUtf8(in.data(), c.len, out.data());
    else
        EXPECT_EQ(kplc::utf16be_to_utf8(in, std::span(reinterpret_cast<char *>(out.data()), room)), want.size() - 1);
    EXPECT_EQ(to_hex(std::span(out).first(want.size())), to_hex(want));
    EXPECT_EQ(out.back(), 0xAA);
}

// "00 41 20 AC 00 E9" is A (1 byte), euro (3) and e-acute (2).
INSTANTIATE_TEST_SUITE_P(Table, UnitsToUtf8,
    ::testing::Values(ToUtf8Case{"ascii_and_euro", "00 41 20 AC", 4, 0, "41 E2 82 AC 00"},
                      ToUtf8Case{"surrogates_one_by_one", "D8 3D DE 00", 4, 0, "ED A0 BD ED B8 80 00"},
                      ToUtf8Case{"odd_byte_ignored", "00 41 00 42 43", 5, 0, "41 42 00"},
                      ToUtf8Case{"empty", "", 0, 0, "00"}, ToUtf8Case{"negative_length", "00 41", -2, 0, "00"},
                      ToUtf8Case{"length_boundaries", "00 7F 00 80 07 FF 08 00 FF FF", 10, 0,
                                 "7F C2 80 DF BF E0 A0 80 EF BF BF 00"},
                      ToUtf8Case{"zero_unit_kept_inside", "00 41 00 00 00 42", 6, 0, "41 00 42 00"},
                      ToUtf8Case{"room_for_terminator_only", "00 41", 2, 1, "00"},
                      ToUtf8Case{"cut_before_the_euro", "00 41 20 AC 00 E9", 6, 4, "41 00"},
                      ToUtf8Case{"euro_just_fits", "00 41 20 AC 00 E9", 6, 5, "41 E2 82 AC 00"},
                      ToUtf8Case{"cut_before_e_acute", "00 41 20 AC 00 E9", 6, 6, "41 E2 82 AC 00"},
                      ToUtf8Case{"all_fit", "00 41 20 AC 00 E9", 6, 7, "41 E2 82 AC C3 A9 00"}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace
