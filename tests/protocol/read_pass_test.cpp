// The read entry against the fake PLC: the frames on the wire, the scopes a
// batch is read in, failures and the link restart, and a read that allocates nothing.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "testkit/alloc_counter.hpp"
#include "testkit/fake_plc.hpp"
#include "testkit/workdir.hpp"

namespace {

using kplc::testkit::Bytes;
using kplc::testkit::FakePlc;
using kplc::testkit::hex;
using kplc::testkit::to_hex;
using kplc::testkit::values;

constexpr unsigned kOk = ER_OK, kTimeout = ER_TIMEOUT, kInvalid = ER_INVALID, kUntouched = 0x55;

// A batch of {tag id, regAddr, regNums} requests, each with a 16-byte buffer of 0xEE.
struct Batch {
    std::vector<Reg> regs;
    std::vector<std::array<uint8_t, 16>> data;
    std::vector<DrvRWBuf> records;
    std::vector<DrvRWBuf *> bufs;

    Batch(std::initializer_list<std::array<uint32_t, 3>> requests) : data(requests.size()) {
        for (const auto &[id, addr, nums] : requests) {
            Reg &r = regs.emplace_back();
            r.regId = uint16_t(id), r.regAddr = addr, r.regNums = nums;
        }
        for (auto &d : data) d.fill(0xEE), records.push_back(DrvRWBuf{0, d.data(), 0, kUntouched});
        for (auto &r : records) bufs.push_back(&r);
    }
    unsigned read(kplc::testkit::Instance &inst) {
        return kplc_mulity_read(inst.drv, &inst.port.prop, regs.data(), static_cast<int>(regs.size()), bufs.data());
    }
    std::string value(std::size_t i, std::size_t n) const { return to_hex(std::span(data[i]).first(n)); }
};

Bytes one_item() { return kplc::testkit::resolve({{.area = 0x84, .location = {1, 2, 3, 4}}}); }

struct ReadPass : ::testing::Test {
    kplc::testkit::ScopedWorkdir dir;
    FakePlc plc;
    kplc::testkit::Instance inst{FakePlc::kLoopback, plc.port()};

    // The driver keeps loaded tag tables for the life of the process; this test's go here.
    void TearDown() override { kplc::testkit::release_tag_tables(); }
    void tags(const char *text) { dir.write_tag_file(FakePlc::kLoopback, 0, text); }
    void start_up(std::vector<std::pair<uint8_t, std::u16string>> programs = {}) {
        plc.reply(kplc::testkit::catalogue_first()).reply(kplc::testkit::catalogue(programs));
    }
};

TEST_F(ReadPass, EachScopeInUseCostsOneResolveAndOneRead) {
    // Main.Step is local to program Main, which the catalogue lists as id 3;
    // Aux.Far belongs to program 9, which no pass reads.
    tags("1,Counter,DINT,,4,,DM100,-1\n2,Main.Step,UINT,,2,,,0\n3,Aux.Far,INT,,2,,,9\n");
    start_up({{4, u"Other"}, {3, u"Main"}});
    plc.reply(one_item()).reply(values(hex("00 2A 00 01"))).reply(one_item()).reply(values(hex("12 34")));
    plc.reply(one_item()).reply(values(hex("00 2B 00 01")));
    const uint16_t s = kplc::state().read_sid;
    const std::array<uint8_t, 4> sids{uint8_t(s >> 8), uint8_t(s), uint8_t((s + 1) >> 8), uint8_t(s + 1)};
    Batch b{{1, 0, 4}, {2, 0, 2}, {3, 0, 2}};

    ASSERT_EQ(b.read(inst), kOk);
    auto requests = plc.requests();
    ASSERT_EQ(requests.size(), 6u) << "catalogue, then two exchanges for each of two scopes";
    EXPECT_EQ(to_hex(requests[2]), "00 00 00 18 FF FF FF E7 " + to_hex(std::span(sids).first(2)) +
                                       " 0C 28 00 01 00 00 00 01 00 07 00 43 00 6F 00 75 00 6E 00 74 00 65 00 72");
    EXPECT_EQ(to_hex(requests[3]), "00 00 00 10 FF FF FF EF " + to_hex(std::span(sids).last(2)) +
                                       " 1E 09 00 00 01 00 00 00 00 84 00 02 01 02 03 04");
    EXPECT_EQ(to_hex(std::span(requests[4]).subspan(12)),
              "00 01 01 01 00 03 00 00 00 00 00 01 00 04 00 53 00 74 00 65 00 70");
    EXPECT_EQ(b.value(0, 5) + " " + b.value(1, 3), "2A 00 01 00 EE 34 12 EE");
    EXPECT_EQ(b.records[0].error + b.records[1].error, kOk);
    EXPECT_EQ(b.value(2, 2), "EE EE");
    EXPECT_EQ(b.records[2].error, kUntouched);

    Batch global{{1, 0, 4}};
    ASSERT_EQ(global.read(inst), kOk);
    EXPECT_EQ(plc.requests().size(), 8u) << "the link is up: a global batch costs two exchanges";
    EXPECT_EQ(global.value(0, 4), "2B 00 01 00");
    EXPECT_EQ(plc.connections(), 1u);
}

TEST_F(ReadPass, ResponseCutInsideTheSecondRequestFailsBoth) {
    tags("1,A,INT,[0..9],20,,,-1\n2,B,INT,[0..9],20,,,-1\n");
    start_up();
    plc.reply(kplc::testkit::resolve(std::vector<kplc::testkit::ResolveItem>(4))).reply(values(hex("00 01 00 02 00 03")));
    Batch b{{1, 0, 4}, {2, 0, 4}};
    EXPECT_EQ(b.read(inst), kTimeout);
    EXPECT_EQ(b.value(0, 4), "01 00 02 00");
    EXPECT_EQ(b.records[0].error, kTimeout);
    EXPECT_EQ(b.records[1].error, kTimeout);
}

TEST_F(ReadPass, RefusalsCostNoTrafficAndLeaveTheOtherRequestsRead) {
    tags("1,Counter,DINT,,4,,DM100,-1\n2,Small,SINT,,1,,,-1\n");
    Batch big{{1, 0, 4}};
    big.regs.resize(257, big.regs[0]);
    big.bufs.resize(257, big.bufs[0]);
    EXPECT_EQ(big.read(inst), kInvalid);
    EXPECT_EQ(plc.connections(), 0u);

    start_up();
    plc.reply(one_item()).reply(values(hex("00 2A 00 00")));
    Batch b{{7, 0, 4}, {1, 0, 4}, {2, 0, 1}};
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(b.read(inst), kOk);
    const std::string out = ::testing::internal::GetCapturedStdout();
    std::size_t lines = 0;
    for (auto at = out.find("[PLC]"); at != std::string::npos; at = out.find("[PLC]", at + 1)) ++lines;
    EXPECT_EQ(lines, 2u) << "one line per refused request:\n" << out;
    EXPECT_EQ(plc.requests().size(), 4u);
    EXPECT_EQ(b.records[0].error, kInvalid);
    EXPECT_EQ(b.records[2].error, kInvalid);
    EXPECT_EQ(b.value(0, 1) + " " + b.value(1, 4) + " " + b.value(2, 1), "EE 2A 00 00 00 EE");
}

TEST_F(ReadPass, FailedExchangeDropsTheLinkAndTheNextCallReconnects) {
    tags("1,Counter,DINT,,4,,DM100,-1\n");
    start_up();
    plc.silence();
    start_up();
    plc.reply(one_item()).reply(values(hex("00 05 00 00")));
    Batch b{{1, 0, 4}};
    EXPECT_EQ(b.read(inst), kInvalid);
    EXPECT_EQ(b.records[0].error, kInvalid);
    EXPECT_EQ(kplc::state().init, 0);
    ASSERT_EQ(b.read(inst), kOk);
    EXPECT_EQ(plc.connections(), 2u);
    EXPECT_EQ(b.value(0, 4), "05 00 00 00");
}

TEST_F(ReadPass, ReadAfterTheTableIsLoadedAllocatesNothing) {
    if (!kplc::testkit::AllocCounter::available()) GTEST_SKIP() << "the sanitizer owns the allocator";
    tags("1,T,STRING,[0..3],80,,,-1\n2,B,BOOL,[0..15],2,,DM0,-1\n3,Counter,DINT,,4,,DM100,-1\n");
    start_up();
    const Bytes items = kplc::testkit::resolve(std::vector<kplc::testkit::ResolveItem>(4));
    const Bytes answer = values(Bytes(2 * (8 + 11 + 1 + 2), 0x31));  // two string chunks, a bit, a DINT
    plc.reply(items).reply(answer).reply(items).reply(answer);
    Batch b{{1, 45, 30}, {2, 3, 1}, {3, 0, 4}};
    ASSERT_EQ(b.read(inst), kOk);
    {
        kplc::testkit::AllocCounter probe;  // the counter must see this thread's allocations
        void *p = std::malloc(64);
        asm volatile("" : : "r"(p) : "memory");
        std::free(p);
        ASSERT_EQ(probe.allocations(), 1u);
    }
    kplc::testkit::AllocCounter counter;
    EXPECT_EQ(b.read(inst), kOk);
    EXPECT_EQ(counter.allocations(), 0u);
}

}  // namespace
