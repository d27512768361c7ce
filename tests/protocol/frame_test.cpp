// The frame writer and reader: exact header bytes, bounds that fail loudly,
// and the walk over resolve items.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "protocol/frame.hpp"
#include "testkit/fake_plc.hpp"

namespace {

using kplc::proto::Command;
using kplc::proto::FrameReader;
using kplc::proto::FrameWriter;
using kplc::proto::ResolveCursor;
using kplc::testkit::Bytes;
using kplc::testkit::to_hex;

TEST(FrameWriter, CatalogueRequestsAreFixedSixteenByteFrames) {
    std::array<uint8_t, 1028> buf{};
    ASSERT_EQ(kplc::proto::build_catalogue_request(buf, Command::FirstCatalogue, 0), 16u);
    EXPECT_EQ(to_hex(std::span(buf).first(16)), "00 00 00 06 FF FF FF F9 00 00 0C 2C 00 00 00 00");
    ASSERT_EQ(kplc::proto::build_catalogue_request(buf, Command::ProgramCatalogue, 1), 16u);
    EXPECT_EQ(to_hex(std::span(buf).first(16)), "00 00 00 06 FF FF FF F9 00 01 0C 25 00 00 00 00");
}

TEST(FrameWriter, GlobalResolveOfOneLetterName) {
    std::array<uint8_t, 64> buf{};
    FrameWriter w(buf);
    const std::array<uint16_t, 1> units{0x0041};
    ASSERT_TRUE(w.begin(Command::SymbolResolve, 0x1234));
    w.u16(0x0001);
    w.scope(kplc::proto::kGlobalScope);
    w.u16(1);
    w.symbol(units);
    ASSERT_EQ(w.finish(), 22u);
    EXPECT_EQ(to_hex(w.frame()), "00 00 00 0C FF FF FF F3 12 34 0C 28 00 01 00 00 00 01 00 01 00 41");
}

TEST(FrameWriter, LocalScopeBlockCarriesTheProgramId) {
    std::array<uint8_t, 64> buf{};
    FrameWriter w(buf);
    ASSERT_TRUE(w.begin(Command::SymbolResolve, 0));
    w.u16(0x0001);
    w.scope(3);
    const std::size_t count_at = w.size();
    w.u16(0);
    ASSERT_TRUE(w.patch_u16(count_at, 2));
    ASSERT_EQ(w.finish(), 24u);
    EXPECT_EQ(to_hex(w.frame().subspan(14)), "01 01 00 03 00 00 00 00 00 02");
}

TEST(FrameWriter, LengthComplementForLargerFrames) {
    // Read by location for two elements: 34 bytes, data_len 24.
    std::array<uint8_t, 64> buf{};
    FrameWriter w(buf);
    ASSERT_TRUE(w.begin(Command::ReadByLocation, 7));
    w.u8(0);
    w.u16(2);
    w.zeros(3 + 16);
    ASSERT_EQ(w.finish(), 34u);
    EXPECT_EQ(to_hex(w.frame().first(12)), "00 00 00 18 FF FF FF E7 00 07 1E 09");

    std::vector<uint8_t> big(70000);
    FrameWriter wide(big);
    ASSERT_TRUE(wide.begin(Command::WordWrite, 0));
    wide.zeros(65536);
    ASSERT_EQ(wide.finish(), 65548u);
    EXPECT_EQ(to_hex(wide.frame().first(8)), "00 01 00 02 FF FE FF FD");
}

TEST(FrameWriter, AWriteThatDoesNotFitFailsTheWholeFrame) {
    std::array<uint8_t, 16> buf{};
    FrameWriter w(buf);
    ASSERT_TRUE(w.begin(Command::SymbolResolve, 0));
    EXPECT_TRUE(w.u32(0xAABBCCDD));
    EXPECT_FALSE(w.u8(1)) << "17th byte must not fit a 16-byte buffer";
    EXPECT_FALSE(w.ok());
    EXPECT_FALSE(w.u8(1)) << "nothing more is written once failed";
    EXPECT_EQ(w.finish(), 0u);

    std::array<uint8_t, 20> small{};
    FrameWriter s(small);
    ASSERT_TRUE(s.begin(Command::SymbolResolve, 0));
    const std::array<uint16_t, 4> units{1, 2, 3, 4};
    EXPECT_FALSE(s.symbol(units)) << "10 bytes of symbol entry into 8 bytes of room";
    EXPECT_EQ(s.size(), 12u) << "a symbol entry is written whole or not at all";
    EXPECT_EQ(s.finish(), 0u);

    FrameWriter never_begun(small);
    EXPECT_EQ(never_begun.finish(), 0u);
    FrameWriter patch(small);
    ASSERT_TRUE(patch.begin(Command::SymbolResolve, 0));
    EXPECT_FALSE(patch.patch_u16(11, 5)) << "a patch must lie inside what was written";
}

TEST(FrameReader, ReadsOnlyWhatWasReceived) {
    const Bytes data{0x01, 0x02, 0x03};
    FrameReader r(data);
    uint16_t v16 = 0;
    uint8_t v8 = 0;
    ASSERT_TRUE(r.u16(v16));
    EXPECT_EQ(v16, 0x0102);
    EXPECT_FALSE(r.u16(v16)) << "one byte left";
    EXPECT_EQ(r.pos(), 2u) << "a failed read does not move";
    EXPECT_FALSE(r.take(2).has_value());
    ASSERT_TRUE(r.u8(v8));
    EXPECT_EQ(v8, 0x03);
    EXPECT_FALSE(r.skip(1));
    EXPECT_EQ(r.remaining(), 0u);

    FrameReader past(data, 10);
    EXPECT_FALSE(past.has(0) && past.remaining() > 0);
    EXPECT_FALSE(past.u8(v8));
    EXPECT_EQ(kplc::proto::byte_at(data, 3), std::nullopt);
    EXPECT_EQ(kplc::proto::byte_at(data, 2), 0x03);
}

TEST(ResolveCursor, AdvancesByTheExtensionCount) {
    // First item with two extensions: the second item's area code is at 21 + 24 + 8 = 53.
    Bytes resp(100, 0);
    resp[21] = 0x84;
    resp[22] = 0x00;
    resp[25] = 0x5A;
    resp[40] = 2;
    resp[53] = 0x90;
    resp[54] = 0x11;
    resp[57] = 0x44;
    ResolveCursor c(resp);
    auto first = c.item();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->area, 0x84);
    EXPECT_EQ(first->location[3], 0x5A);
    ASSERT_TRUE(c.advance());
    EXPECT_EQ(c.position(), 32u);
    auto second = c.item();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->area, 0x90);
    EXPECT_EQ((std::array<uint8_t, 4>{0x11, 0, 0, 0x44}), second->location);
}

TEST(ResolveCursor, AnItemNotFullyReceivedIsAbsent) {
    // 25 bytes end before the location's last byte (offset 25).
    Bytes resp(25, 0);
    ResolveCursor c(resp);
    EXPECT_FALSE(c.item());
    EXPECT_FALSE(c.at(30));
    EXPECT_FALSE(c.advance()) << "the extension count at 40 was not received";

    Bytes one(41, 0);
    ResolveCursor d(one);
    EXPECT_TRUE(d.item());
    ASSERT_TRUE(d.advance());
    EXPECT_FALSE(d.item()) << "the second item lies beyond the response";
}

}  // namespace
