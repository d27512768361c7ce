// After its tag table is loaded, a read or write call costs its exchanges and
// nothing more: no heap allocation, and per exchange exactly one non-waiting
// poll (the drain of stale input), one send, one timed wait and one read. A
// read costs two exchanges per scope in use; a write two (resolve, write),
// three for a bit write that must read the word first.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "e2e_tags.hpp"
#include "kplc/kplc.h"
#include "plc.hpp"
#include "server.hpp"
#include "testkit/alloc_counter.hpp"
#include "testkit/workdir.hpp"
#include "transport/syscall_probe.hpp"

namespace {

using namespace kplc::e2e;  // tag file and tag ids
using kplc::testkit::AllocCounter;
using kplc::transport_test::CallCounts;
using kplc::transport_test::CallProbe;

constexpr uint32_t kLoopback = 0x7F000001;

struct Cost {
    unsigned result = ~0u;
    std::size_t allocations = 0;
    CallCounts calls;
    std::size_t exchanges = 0;    // requests the simulator answered
    std::size_t reconnects = 0;   // connections it accepted meanwhile
};

// One register request of a batch, with its runtime buffer.
struct Request {
    uint16_t id;
    uint32_t addr;
    uint32_t nums;
};

// Everything a batch needs, allocated before it is measured.
struct Batch {
    std::vector<Reg> regs;
    std::vector<std::array<uint8_t, 256>> values;
    std::vector<DrvRWBuf> bufs;
    std::vector<DrvRWBuf *> ptrs;

    explicit Batch(const std::vector<Request> &requests)
        : regs(requests.size()), values(requests.size()), bufs(requests.size()), ptrs(requests.size()) {
        for (std::size_t i = 0; i < requests.size(); ++i) {
            regs[i] = Reg{};
            regs[i].regId = requests[i].id;
            regs[i].regAddr = requests[i].addr;
            regs[i].regNums = requests[i].nums;
            bufs[i] = DrvRWBuf{0, values[i].data(), static_cast<int32_t>(values[i].size()), 0};
            ptrs[i] = &bufs[i];
        }
    }
};

class RequestCost : public ::testing::Test {
protected:
    void SetUp() override {
        dir_.write_tag_file(kLoopback, 0, kTags);
        plc_ = std::make_unique<kplc::sim::Plc>(kTags);
        server_ = std::make_unique<kplc::sim::Server>(*plc_, kplc::sim::ServerOptions{});
        server_->start();
        instance_ = std::make_unique<kplc::testkit::Instance>(kLoopback, server_->port(), 1);
    }
    void TearDown() override {
        // Loaded tag tables live as long as the process; release this test's.
        kplc::testkit::release_tag_tables();
        instance_.reset();
        server_->stop();
    }

    unsigned read(Batch &batch) {
        return kplc_mulity_read(instance_->drv, &instance_->port.prop, batch.regs.data(),
                                static_cast<int>(batch.regs.size()), batch.ptrs.data());
    }
    unsigned write(Reg &reg, uint8_t *value) {
        return kplc_write(instance_->drv, &instance_->port.prop, &reg, value);
    }

    // Runs `call` once to load the tag table and start the link, then again
    // under the allocation counter and the system-call probe.
    template <typename Call>
    Cost measure(Call &&call) {
        {
            AllocCounter loading;
            if (call() != ER_OK) ADD_FAILURE() << "warm-up call failed";
            warm_up_allocations_ += loading.allocations();
        }
        const std::size_t requests = server_->requests();
        const std::size_t connections = server_->connections();
        Cost cost;
        {
            AllocCounter allocations;
            CallProbe probe;
            cost.result = call();
            cost.calls = probe.counts();
            cost.allocations = allocations.allocations();
        }
        cost.exchanges = server_->requests() - requests;
        cost.reconnects = server_->connections() - connections;
        return cost;
    }

    static void expect_exchanges_only(const Cost &cost, std::size_t exchanges) {
        EXPECT_EQ(cost.result, ER_OK);
        EXPECT_EQ(cost.exchanges, exchanges);
        EXPECT_EQ(cost.reconnects, 0u);
        EXPECT_EQ(cost.calls.sends, exchanges);
        EXPECT_EQ(cost.calls.reads, exchanges);
        EXPECT_EQ(cost.calls.polls, 2 * exchanges);
        if (AllocCounter::available()) {
            EXPECT_EQ(cost.allocations, 0u);
        }
    }

    // The first call of a side loads its tag table onto the heap: seeing it
    // proves that the counter is live in this program, so the zero counts
    // after it mean something.
    void expect_table_load_counted() const {
        if (AllocCounter::available()) {
            EXPECT_GT(warm_up_allocations_, 0u);
        }
    }

private:
    std::size_t warm_up_allocations_ = 0;
    kplc::testkit::ScopedWorkdir dir_;
    std::unique_ptr<kplc::sim::Plc> plc_;
    std::unique_ptr<kplc::sim::Server> server_;
    std::unique_ptr<kplc::testkit::Instance> instance_;
};

struct ReadCase {
    const char *name;
    std::vector<Request> requests;
    std::size_t scopes;  // scopes in use: two exchanges each
};

TEST_F(RequestCost, ReadsAreTheirExchangesOnly) {
    const std::vector<ReadCase> cases = {
        {"one global number", {{kCount, 0, 4}}, 1},
        {"every global shape",
         {{kCount, 0, 4}, {kSpeed, 0, 2}, {kLevels, 4, 8}, {kGrid, 8, 12}, {kCube, 6, 10}, {kLamp, 0, 1},
          {kFlags, 3, 9}, {kDmBits, 5, 4}, {kTitle, 2, 10}, {kLines, 15, 30}, {kNote, 0, 18},
          {kMotorSpeed, 0, 2}, {kCellVals, 4, 8}},
         1},
        {"global and two program scopes", {{kCount, 0, 4}, {kMainStep, 0, 2}, {kAuxCount, 0, 4}, {kMainBusy, 0, 1}},
         3},
    };
    for (const ReadCase &c : cases) {
        SCOPED_TRACE(c.name);
        Batch batch(c.requests);
        const Cost cost = measure([&] { return read(batch); });
        expect_exchanges_only(cost, 2 * c.scopes);
        for (const DrvRWBuf &buf : batch.bufs) EXPECT_EQ(buf.error, ER_OK);
    }
    expect_table_load_counted();
}

struct WriteCase {
    const char *name;
    Request request;
    std::size_t exchanges;
};

TEST_F(RequestCost, WritesAreTheirExchangesOnly) {
    const std::vector<WriteCase> cases = {
        {"double word", {kCount, 0, 4}, 2},
        {"quad word", {kPrecise, 0, 8}, 2},
        {"array run", {kLevels, 4, 6}, 2},
        {"program-local word", {kMainStep, 0, 2}, 2},
        {"text", {kTitle, 3, 5}, 2},
        {"bit on a bit device", {kLamp, 0, 1}, 2},
        {"bit of an array in a structure, read before written", {kMotorBits, 3, 1}, 3},
    };
    for (const WriteCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::array<uint8_t, 16> value{0x01, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48};
        Reg reg{};
        const Cost cost = measure([&] {
            reg = Reg{};
            reg.regId = c.request.id;
            reg.regAddr = c.request.addr;
            reg.regNums = c.request.nums;
            return write(reg, value.data());
        });
        expect_exchanges_only(cost, c.exchanges);
    }
    expect_table_load_counted();
}

}  // namespace
