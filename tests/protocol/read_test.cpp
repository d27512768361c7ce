// Reads through the read entry against a scripted fake PLC on 127.0.0.1: for
// each batch, the exact requests sent after the catalogue (sequence numbers
// blanked), the result, every request's error and the bytes left in each
// runtime buffer.
#include <gtest/gtest.h>


#include "kplc/kplc.h"
#include "testkit/fake_plc.hpp"
#include "harness/instance.hpp"

namespace {

using namespace kplc::testkit;
using namespace kplc::harness;

constexpr unsigned kOk = ER_OK, kTimeout = ER_TIMEOUT, kInvalid = ER_INVALID, kUntouched = 0x55;

// Tag k is line k.
constexpr const char *kTags =
    "1,Counter,DINT,,4,,DM100,-1\n2,Main.Step,UINT,,2,,,0\n3,Aux.Far,INT,,2,,,9\n4,A,INT,[0..9],20,,,-1\n"
    "5,B,INT,[0..9],20,,,-1\n6,Small,SINT,,1,,,-1\n7,Grid,DINT,[1..3_0..4],60,,,-1\n8,Text,STRING,[0..3],80,,,-1\n"
    "9,Bits,BOOL,[0..15],2,,DM0,-1\n10,Lamp,BOOL,,1,,,-1\n";

Bytes item(uint8_t area = 0x84, uint8_t byte30 = 0) {
    return resolve({{.area = area, .location = {1, 2, 3, 4}, .byte30 = byte30}});
}
Bytes items(std::size_t n) { return resolve(std::vector<ResolveItem>(n)); }

struct Case {
    const char *what;
    std::vector<std::array<uint32_t, 3>> batch;  // tag id, regAddr, regNums
    std::vector<Bytes> replies;                  // after the catalogue
    unsigned result;
    std::vector<std::string> sent;    // per request after the catalogue, bytes 8 and 9 as "__"
    std::vector<unsigned> errors;     // per batch request
    std::vector<std::string> buffers;  // per batch request: the first bytes of its buffer (EE: untouched)
    std::string printed = "";
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.what; }

class Reads : public ::testing::TestWithParam<Case> {};

TEST_P(Reads, SendExactlyTheseRequests) {
    const Case &c = GetParam();
    WorkFolder dir;
    dir.write_tag_file(FakePlc::kLoopback, 0, kTags);
    FakePlc plc;
    Instance inst(FakePlc::kLoopback, plc.port());
    plc.reply(catalogue_first()).reply(catalogue({{4, u"Other"}, {0, u"Main"}}));
    for (const Bytes &r : c.replies) plc.reply(r);
    std::vector<Reg> regs;
    std::vector<std::array<uint8_t, 16>> data(c.batch.size());
    std::vector<DrvRWBuf> records;
    std::vector<DrvRWBuf *> bufs;
    for (std::size_t i = 0; i < c.batch.size(); ++i) {
        Reg &r = regs.emplace_back();
        r.regId = static_cast<uint16_t>(c.batch[i][0]), r.regAddr = c.batch[i][1], r.regNums = c.batch[i][2];
        data[i].fill(0xEE);
        records.push_back(DrvRWBuf{0, data[i].data(), 0, kUntouched});
    }
    for (auto &r : records) bufs.push_back(&r);
    testing::internal::CaptureStdout();
    EXPECT_EQ(kplc_mulity_read(inst.drv, &inst.port.prop, regs.data(), static_cast<int>(regs.size()), bufs.data()),
              c.result);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find(c.printed), std::string::npos) << out;
    auto requests = plc.requests();
    if (requests.size() >= 2) requests.erase(requests.begin(), requests.begin() + 2);
    ASSERT_EQ(requests.size(), c.sent.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        std::string text = to_hex(requests[i]);
        text.replace(24, 5, "__ __");
        EXPECT_EQ(text, c.sent[i]) << "request " << i;
    }
    for (std::size_t i = 0; i < c.batch.size(); ++i) {
        EXPECT_EQ(records[i].error, c.errors[i]) << "request " << i;
        const std::size_t n = (c.buffers[i].size() + 1) / 3;
        EXPECT_EQ(to_hex(std::span(data[i]).first(n)), c.buffers[i]) << "request " << i;
    }
    release_tag_tables();
}

const std::string kResolveCounter =
    "00 00 00 18 FF FF FF E7 __ __ 0C 28 00 01 00 00 00 01 00 07 00 43 00 6F 00 75 00 6E 00 74 00 65 00 72";
const std::string kReadOne = "00 00 00 10 FF FF FF EF __ __ 1E 09 00 00 01 00 00 00 00 84 00 02 01 02 03 04";

INSTANTIATE_TEST_SUITE_P(Wire, Reads, ::testing::Values(
        Case{"one_number", {{1, 0, 4}}, {item(), values(hex("00 2A 00 01"))}, kOk, {kResolveCounter, kReadOne},
             {kOk}, {"2A 00 01 00 EE"}},
        // Main.Step is local to program Main (id 0 in the catalogue); Aux.Far
        // belongs to program 9, which no pass reads.
        Case{"each_scope_in_use_costs_two_exchanges", {{1, 0, 4}, {2, 0, 2}, {3, 0, 2}},
             {item(), values(hex("00 2A 00 01")), item(), values(hex("12 34"))}, kOk, {kResolveCounter, kReadOne,
              "00 00 00 18 FF FF FF E7 __ __ 0C 28 00 01 01 01 00 00 00 00 00 00 00 01 00 04 00 53 00 74 00 65 00 70",
              "00 00 00 10 FF FF FF EF __ __ 1E 09 00 00 01 00 00 00 00 84 00 01 01 02 03 04"},
             {kOk, kOk, kUntouched}, {"2A 00 01 00 EE", "34 12 EE", "EE EE"}},
        // Offsets and counts arrive in bytes; runs name every element.
        Case{"array_run_and_2d_element", {{4, 4, 6}, {7, 28, 4}},
             {items(4), values(hex("00 01 00 02 00 03 00 00 00 04"))}, kOk,
             {"00 00 00 44 FF FF FF BB __ __ 0C 28 00 01 00 00 00 04 00 05 00 41 00 5B 00 23 00 32 00 5D 00 05 00 41 "
              "00 5B 00 23 00 33 00 5D 00 05 00 41 00 5B 00 23 00 34 00 5D 00 0B 00 47 00 72 00 69 00 64 00 5B 00 23 "
              "00 32 00 2C 00 23 00 32 00 5D",
              "00 00 00 28 FF FF FF D7 __ __ 1E 09 00 00 04 00 00 00 00 00 00 01 00 00 00 00 00 00 00 01 00 00 00 00 "
              "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00"},
             {kOk, kOk}, {"01 00 02 00 03 00 EE", "00 00 04 00 EE"}},
        // A string read names its first character and reads to the element's end;
        // a bit on DM takes its bit number from byte 30.
        Case{"text_and_bit", {{8, 25, 3}, {9, 3, 1}},
             {items(2), values(hex("41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 00 00 08"))}, kOk,
             {"00 00 00 34 FF FF FF CB __ __ 0C 28 00 01 00 00 00 02 00 0C 00 54 00 65 00 78 00 74 00 5B 00 23 00 31 "
              "00 5D 00 5B 00 23 00 35 00 5D 00 08 00 42 00 69 00 74 00 73 00 5B 00 23 00 33 00 5D",
              "00 00 00 18 FF FF FF E7 __ __ 1E 09 00 00 02 00 00 00 00 00 00 08 00 00 00 00 00 00 00 01 00 00 00 00"},
             {kOk, kOk}, {"41 42 43 EE", "00 EE"}},
        Case{"response_cut_inside_the_second_request_fails_both", {{4, 0, 4}, {5, 0, 4}},
             {items(4), values(hex("00 01 00 02 00 03"))}, kTimeout,
             {"00 00 00 38 FF FF FF C7 __ __ 0C 28 00 01 00 00 00 04 00 05 00 41 00 5B 00 23 00 30 00 5D 00 05 00 41 "
              "00 5B 00 23 00 31 00 5D 00 05 00 42 00 5B 00 23 00 30 00 5D 00 05 00 42 00 5B 00 23 00 31 00 5D",
              "00 00 00 28 FF FF FF D7 __ __ 1E 09 00 00 04 00 00 00 00 00 00 01 00 00 00 00 00 00 00 01 00 00 00 00 "
              "00 00 00 01 00 00 00 00 00 00 00 01 00 00 00 00"},
             {kTimeout, kTimeout}, {"01 00 02 00", ""}},
        Case{"resolve_reply_without_the_item_fails_the_batch", {{1, 0, 4}}, {ack(25)}, kTimeout,
             {kResolveCounter}, {kTimeout}, {"EE"}},
        // Refused requests cost no traffic, print one line each and leave the others read.
        Case{"refusals", {{11, 0, 4}, {1, 0, 4}, {6, 0, 1}}, {item(), values(hex("00 2A 00 00"))}, kOk,
             {kResolveCounter, kReadOne}, {kInvalid, kOk, kInvalid}, {"EE", "2A 00 00 00", "EE"}, "[PLC]"}),
    [](const auto &info) { return std::string(info.param.what); });

TEST(Reads, ABatchOver256RequestsIsRefusedWithoutTraffic) {
    WorkFolder dir;
    dir.write_tag_file(FakePlc::kLoopback, 0, kTags);
    FakePlc plc;
    Instance inst(FakePlc::kLoopback, plc.port());
    std::vector<Reg> regs(257);
    uint8_t value[4];
    DrvRWBuf record{0, value, 0, 0};
    std::vector<DrvRWBuf *> bufs(257, &record);
    for (Reg &r : regs) r.regId = 1, r.regNums = 4;
    EXPECT_EQ(kplc_mulity_read(inst.drv, &inst.port.prop, regs.data(), 257, bufs.data()), kInvalid);
    EXPECT_EQ(plc.connections(), 0u);
    release_tag_tables();
}

}  // namespace
