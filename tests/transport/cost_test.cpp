// After its tag table is loaded, a read or write call costs its exchanges and
// nothing more: no heap allocation, and per exchange exactly one non-waiting
// poll (the drain of stale input), one send, one timed wait and one read. A
// read costs two exchanges per scope in use; a write two (resolve, write),
// three for a bit write that must read its word first.
#include <gtest/gtest.h>

#include <functional>

#include "kplc/kplc.h"
#include "testkit/alloc_counter.hpp"
#include "testkit/fake_plc.hpp"
#include "harness/instance.hpp"
#include "transport/syscall_probe.hpp"

namespace {

using namespace kplc::testkit;
using namespace kplc::harness;

constexpr const char *kTags =
    "1,Count,DINT,,4,,DM100,-1\n2,Levels,INT,[0..9],20,,EM200,-1\n3,Grid,DINT,[0..2_1..3],36,,,-1\n"
    "4,Lines,STRING,[0..3],84,,,-1\n5,Lamp,BOOL,,1,,MR100,-1\n6,Flags,BOOL,[0..31],4,,,-1\n"
    "7,Motor.Bits,BOOL,[0..7],1,,,-1\n8,Main.Step,UINT,,2,,,0\n9,Aux.Count,DINT,,4,,,1\n10,Precise,LREAL,,8,,,-1\n";

struct Call {
    const char *what;
    std::vector<std::array<uint32_t, 3>> regs;  // tag id, regAddr, regNums; one: a write when `write`
    bool write;
    std::size_t exchanges;
};

TEST(RequestCost, CallsAreTheirExchangesOnly) {
    WorkFolder dir;
    dir.write_tag_file(FakePlc::kLoopback, 0, kTags);
    FakePlc plc(FakePlc::Transport::Tcp, kTags);  // the simulated PLC answers everything
    Instance inst(FakePlc::kLoopback, plc.port());
    const Call calls[] = {
        {"read one number", {{1, 0, 4}}, false, 2},
        {"read every global shape", {{1, 0, 4}, {2, 4, 8}, {3, 8, 12}, {4, 15, 30}, {5, 0, 1}, {6, 3, 9}}, false, 2},
        {"read global and two program scopes", {{1, 0, 4}, {8, 0, 2}, {9, 0, 4}}, false, 6},
        {"write a double word", {{1, 0, 4}}, true, 2},
        {"write a quad word", {{10, 0, 8}}, true, 2},
        {"write an array run", {{2, 4, 6}}, true, 2},
        {"write a program-local word", {{8, 0, 2}}, true, 2},
        {"write text", {{4, 3, 5}}, true, 2},
        {"write a bit on a bit device", {{5, 0, 1}}, true, 2},
        {"write a bit of a member array, read first", {{7, 3, 1}}, true, 3},
    };
    std::size_t loading = 0;
    for (const Call &c : calls) {
        SCOPED_TRACE(c.what);
        std::vector<Reg> regs;
        std::vector<std::array<uint8_t, 64>> values(c.regs.size(), {0x01, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48});
        std::vector<DrvRWBuf> bufs;
        std::vector<DrvRWBuf *> ptrs;
        for (std::size_t i = 0; i < c.regs.size(); ++i) {
            Reg &r = regs.emplace_back();
            r.regId = static_cast<uint16_t>(c.regs[i][0]), r.regAddr = c.regs[i][1], r.regNums = c.regs[i][2];
            bufs.push_back(DrvRWBuf{0, values[i].data(), 64, 0});
        }
        for (auto &b : bufs) ptrs.push_back(&b);
        const auto call = [&] {
            return c.write ? kplc_write(inst.drv, &inst.port.prop, regs.data(), values[0].data())
                           : kplc_mulity_read(inst.drv, &inst.port.prop, regs.data(), static_cast<int>(regs.size()),
                                              ptrs.data());
        };
        {
            AllocCounter warm_up;  // loads the tag table and starts the link
            ASSERT_EQ(call(), static_cast<unsigned>(ER_OK));
            loading += warm_up.allocations();
        }
        const std::size_t requests = plc.requests().size(), connections = plc.connections();
        kplc::transport_test::CallCounts counts;
        std::size_t allocations = 0;
        unsigned result = 0;
        {
            AllocCounter heap;
            kplc::transport_test::CallProbe probe;
            result = call();
            counts = probe.counts();
            allocations = heap.allocations();
        }
        EXPECT_EQ(result, static_cast<unsigned>(ER_OK));
        EXPECT_EQ(plc.requests().size() - requests, c.exchanges);
        EXPECT_EQ(plc.connections(), connections);
        EXPECT_EQ(counts.sends, c.exchanges);
        EXPECT_EQ(counts.reads, c.exchanges);
        EXPECT_EQ(counts.polls, 2 * c.exchanges);
        if (AllocCounter::available()) {
            EXPECT_EQ(allocations, 0u);
        }
        for (const DrvRWBuf &b : bufs) EXPECT_EQ(b.error, c.write ? 0u : static_cast<unsigned>(ER_OK));
    }
    // The table loads are counted: the counter is live, so the zeros above mean something.
    if (AllocCounter::available()) {
        EXPECT_GT(loading, 0u);
    }
    release_tag_tables();
}

}  // namespace
