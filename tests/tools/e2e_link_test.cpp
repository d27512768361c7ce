// The link end to end: batches across scopes, a PLC that drops the
// connection, datagrams, and replies too short to use.
#include "tools/e2e_fixture.hpp"
#include "tools/e2e_tags.hpp"

namespace kplc::e2e {
namespace {

using sim::kGlobal;

class Link : public EndToEnd {};

// One batch reads the global names and the names of both programs; the
// program-local ones are found through the catalogue.
TEST_F(Link, ABatchMixingScopesReadsEveryRequest) {
    start(kTags);
    ASSERT_TRUE(plc().poke(kGlobal, "Count", hex("00 2A 00 00")));
    ASSERT_TRUE(plc().poke(0, "Step", hex("01 02")));
    ASSERT_TRUE(plc().poke(1, "Count", hex("00 07 00 01")));
    ASSERT_TRUE(plc().poke(kGlobal, "Title", text("abc")));
    ASSERT_TRUE(plc().poke_bit(0, "Busy", true));
    ASSERT_TRUE(plc().poke(1, "Message", text("hi")));
    ASSERT_TRUE(plc().poke_bit(kGlobal, "Lamp", true));
    unsigned rc = 99;
    const auto results = read_batch({{kCount, 0, 4},
                                     {kMainStep, 0, 2},
                                     {kAuxCount, 0, 4},
                                     {kTitle, 0, 3},
                                     {kMainBusy, 0, 1},
                                     {kAuxMessage, 0, 2},
                                     {kLamp, 0, 1}},
                                    &rc);
    EXPECT_EQ(rc, ER_OK);
    const Bytes expected[] = {hex("2A 00 00 00"), hex("02 01"), hex("07 00 01 00"), text("abc"), {1}, text("hi"), {1}};
    ASSERT_EQ(results.size(), std::size(expected));
    for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].error, ER_OK) << "request " << i;
        EXPECT_EQ(Bytes(results[i].bytes.begin(), results[i].bytes.begin() + static_cast<std::ptrdiff_t>(expected[i].size())),
                  expected[i])
            << "request " << i;
    }
}

// The simulator closes every connection after four requests: the start-up
// (two catalogue requests) and one read pass. The reads after that find the
// link gone, until one starts it again.
TEST_F(Link, AReadAfterTheLinkDroppedStartsItAgain) {
    start(kTags, {.close_after = 4});
    ASSERT_TRUE(plc().poke(kGlobal, "Speed", hex("00 05")));
    EXPECT_EQ(read(kSpeed, 0, 2), hex("05 00"));
    ASSERT_TRUE(plc().poke(kGlobal, "Speed", hex("00 06")));
    EXPECT_EQ(read(kSpeed, 0, 2), std::nullopt) << "the connection is closed";
    std::optional<Bytes> value;
    for (int attempt = 0; attempt < 2 && !value; ++attempt) value = read(kSpeed, 0, 2);
    EXPECT_EQ(value, hex("06 00"));
    EXPECT_EQ(server().connections(), 2u);
}

// A write that finds the link gone fails; the driver restarts the link at
// once, so the next write goes through.
TEST_F(Link, WritesGoThroughAgainAfterTheLinkDropped) {
    start(kTags, {.close_after = 4});
    ASSERT_EQ(write(kSpeed, 0, hex("01 00")), ER_OK);
    ASSERT_EQ(write(kSpeed, 0, hex("02 00")), ER_OK);  // the fourth request: the simulator closes now
    unsigned rc = ER_OK;
    uint8_t value = 3;
    int attempts = 0;
    for (; attempts < 3; ++attempts, ++value) {
        rc = write(kSpeed, 0, {value, 0});
        if (rc == ER_OK) break;
    }
    ASSERT_EQ(rc, ER_OK) << "no write went through after the drop";
    EXPECT_GE(attempts, 1) << "the first write after the drop cannot have reached the PLC";
    EXPECT_EQ(plc().peek(kGlobal, "Speed", 2), (Bytes{0, value}));
    EXPECT_GE(server().connections(), 2u);
}

TEST_F(Link, WorksOverDatagrams) {
    start(kTags, {.udp = true});
    EXPECT_EQ(write(kCount, 0, hex("78 56 34 12")), ER_OK);
    EXPECT_EQ(write(kLines, 21 + 3, text("udp")), ER_OK);
    EXPECT_EQ(read(kCount, 0, 4), hex("78 56 34 12"));
    EXPECT_EQ(read(kLines, 21 + 3, 3), text("udp"));
}

// A resolve reply of 24 bytes or fewer carries no usable item: every request
// of the batch reports a time-out and nothing reaches the buffers.
TEST_F(Link, RepliesTooShortForAnItemFailTheWholeBatch) {
    start(kTags, {.truncate = 24});
    unsigned rc = 0;
    const auto results = read_batch({{kCount, 0, 4}, {kMainStep, 0, 2}}, &rc);
    EXPECT_EQ(rc, ER_TIMEOUT);
    for (const auto &r : results) {
        EXPECT_EQ(r.error, ER_TIMEOUT);
        EXPECT_EQ(r.bytes, Bytes(256, 0xEE));
    }
}

// A variable the driver's file names but the PLC does not have: the resolve
// reply stops before its item, and neither a read nor a write goes through.
TEST_F(Link, ATagThePlcDoesNotKnowIsNeitherReadNorWritten) {
    start(kTags, {}, (std::string(kTags) + "46,Ghost,INT,,2,,,-1\n").c_str());
    unsigned rc = ER_OK;
    const auto results = read_batch({{46, 0, 2}}, &rc);
    EXPECT_NE(rc, static_cast<unsigned>(ER_OK));
    EXPECT_NE(results[0].error, static_cast<U32>(ER_OK));
    EXPECT_EQ(results[0].bytes, Bytes(256, 0xEE));
    EXPECT_NE(write(46, 0, hex("01 00")), static_cast<unsigned>(ER_OK));
    // The link is still good for the variables the PLC has.
    EXPECT_EQ(write(kSpeed, 0, hex("09 00")), ER_OK);
    EXPECT_EQ(read(kSpeed, 0, 2), hex("09 00"));
}

}  // namespace
}  // namespace kplc::e2e
