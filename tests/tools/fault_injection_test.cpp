// Fault injection end to end through the C entry points: the simulated PLC
// goes silent, answers too late, refuses or drops connections, is switched off
// in the middle of a batch or a write, or answers on a live connection with
// replies that are cut, split, scrambled, oversized or followed by stray
// bytes. For every fault the calls return one of the documented results
// within the time-out bound and write nothing outside the runtime's buffers
// (fenced by inaccessible pages); once the PLC is healthy again the first call
// that finds the link down starts it again and succeeds.
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <set>

#include "testkit/fake_plc.hpp"
#include "tools/e2e_tags.hpp"
#include "tools/fault_kit.hpp"

namespace kplc::fault {
namespace {

using e2e::kTags;
using testkit::Bytes;
using testkit::hex;

constexpr int kTimeoutS = 1;
// A call waits for at most one response time-out (a time-out closes the link
// and ends the call); a write may wait for a second one while it restarts the
// link at once. The margin covers a loaded machine.
constexpr long kReadBoundMs = kTimeoutS * 1000 + 1500;
constexpr long kWriteBoundMs = 2 * kTimeoutS * 1000 + 1500;

const std::vector<ReadSpec> kBatch = {
    {e2e::kCount, 0, 4}, {e2e::kSpeed, 0, 2}, {e2e::kTitle, 0, 3}, {e2e::kMainStep, 0, 2}, {e2e::kLamp, 0, 1}};
const std::vector<Bytes> kExpected = {hex("2A 00 00 00"), hex("05 00"), Bytes{'a', 'b', 'c'}, hex("02 01"), {1}};

void preset(sim::Plc &plc) {
    ASSERT_TRUE(plc.poke(sim::kGlobal, "Count", hex("00 2A 00 00")));
    ASSERT_TRUE(plc.poke(sim::kGlobal, "Speed", hex("00 05")));
    ASSERT_TRUE(plc.poke(sim::kGlobal, "Title", Bytes{'a', 'b', 'c'}));
    ASSERT_TRUE(plc.poke(0, "Step", hex("01 02")));
    ASSERT_TRUE(plc.poke_bit(sim::kGlobal, "Lamp", true));
}

// The batch read in full and exactly.
void expect_healthy(GuardedBatch &batch, unsigned rc) {
    ASSERT_EQ(rc, ER_OK);
    for (std::size_t i = 0; i < batch.size(); ++i) {
        EXPECT_EQ(batch.error(i), ER_OK) << "request " << i;
        EXPECT_EQ(batch.value(i), kExpected[i]) << "request " << i;
    }
    EXPECT_TRUE(batch.intact());
}

// A failed batch reports its result in every request, and the buffers' fences hold.
void expect_documented_failure(GuardedBatch &batch, unsigned rc, const std::set<unsigned> &allowed) {
    EXPECT_TRUE(allowed.count(rc)) << "result " << rc;
    if (rc != ER_OK) {
        for (std::size_t i = 0; i < batch.size(); ++i) EXPECT_EQ(batch.error(i), rc) << "request " << i;
    }
    EXPECT_TRUE(batch.intact());
}

class Fault : public ::testing::Test {
protected:
    void SetUp() override {
        dir_.write_tag_file(kPlcAddress, 0, kTags);
        plc_ = std::make_unique<SimulatedPlc>(kTags);
        preset(plc_->plc());
        instance_ = std::make_unique<testkit::Instance>(kPlcAddress, plc_->port(), kTimeoutS);
    }
    void TearDown() override {
        testkit::release_tag_tables();
        instance_.reset();
        plc_.reset();
    }
    unsigned read(GuardedBatch &batch, long &ms) {
        return timed([&] { return batch.read(instance_->drv, &instance_->port.prop); }, ms);
    }
    unsigned write(uint16_t id, const Bytes &value, long &ms, bool &intact) {
        return timed([&] { return guarded_write(instance_->drv, &instance_->port.prop, id, 0, value, &intact); }, ms);
    }
    // The PLC is switched off: calls fail (at first on the connection the
    // driver still holds, then at the connect) until the driver has seen the
    // link down, which takes at most three calls.
    void switch_off_until_link_down(GuardedBatch &batch) {
        plc_->stop();
        for (int call = 0; call < 3 && link_up(); ++call) {
            long ms = 0;
            const unsigned rc = read(batch, ms);
            expect_documented_failure(batch, rc, {ER_TIMEOUT, ER_INVALID});
            EXPECT_LE(ms, kReadBoundMs);
        }
        ASSERT_FALSE(link_up());
        long ms = 0;
        const unsigned rc = read(batch, ms);
        EXPECT_EQ(rc, ER_TIMEOUT) << "no PLC: the link cannot start";
        EXPECT_LE(ms, kReadBoundMs);
        expect_documented_failure(batch, rc, {ER_TIMEOUT});
    }

    testkit::ScopedWorkdir dir_;
    std::unique_ptr<SimulatedPlc> plc_;
    std::unique_ptr<testkit::Instance> instance_;
};

// Faults of the whole PLC, by the simulator's misbehaviour options. Each
// fault phase starts from a working link; the PLC is then restarted
// misbehaving (its old connection drops, as with a PLC that reboots).
struct PlcFault {
    const char *name;
    sim::ServerOptions options;
    std::set<unsigned> results;  // what a read may return during the fault
    bool link_lost;              // every read during the fault ends with the link down
};

// gtest names the case by its name (the record has padding it must not print).
void PrintTo(const PlcFault &fault, std::ostream *os) { *os << fault.name; }

class PlcFaults : public Fault, public ::testing::WithParamInterface<PlcFault> {};

TEST_P(PlcFaults, ReadsFailAsDocumentedAndTheFirstReadOnAHealthyPlcSucceeds) {
    const PlcFault &fault = GetParam();
    GuardedBatch batch(kBatch);
    long ms = 0;
    expect_healthy(batch, read(batch, ms));

    plc_->start(fault.options);
    std::string seen;
    long slowest = 0;
    for (int call = 0; call < 4; ++call) {
        const unsigned rc = read(batch, ms);
        seen += std::to_string(rc) + " ";
        slowest = std::max(slowest, ms);
        expect_documented_failure(batch, rc, fault.results);
        EXPECT_LE(ms, kReadBoundMs) << "call " << call;
        if (fault.link_lost && call > 0) {
            EXPECT_FALSE(link_up()) << "call " << call;
        }
    }
    if (fault.link_lost) {
        ASSERT_FALSE(link_up());
    } else {
        switch_off_until_link_down(batch);
    }

    plc_->start({});
    const unsigned rc = read(batch, ms);
    expect_healthy(batch, rc);
    EXPECT_LE(ms, kReadBoundMs);
    std::printf("fault %s: reads returned %s(slowest %ld ms); first read on the healthy PLC %u in %ld ms\n",
                fault.name, seen.c_str(), slowest, rc, ms);
}

TEST_P(PlcFaults, WritesFailAsDocumentedAndTheFirstWriteOnAHealthyPlcSucceeds) {
    const PlcFault &fault = GetParam();
    GuardedBatch batch(kBatch);
    long ms = 0;
    bool intact = false;
    ASSERT_EQ(write(e2e::kSpeed, hex("07 00"), ms, intact), ER_OK);

    plc_->start(fault.options);
    std::string seen;
    long slowest = 0;
    for (int call = 0; call < 3; ++call) {
        const unsigned rc = write(e2e::kSpeed, hex("08 00"), ms, intact);
        seen += std::to_string(rc) + " ";
        slowest = std::max(slowest, ms);
        EXPECT_TRUE(rc == ER_OK || rc == ER_TIMEOUT || rc == ER_INVALID) << rc;
        EXPECT_TRUE(intact);
        EXPECT_LE(ms, kWriteBoundMs) << "call " << call;
    }
    if (!fault.link_lost || link_up()) switch_off_until_link_down(batch);

    plc_->start({});
    ASSERT_EQ(write(e2e::kSpeed, hex("09 00"), ms, intact), ER_OK);
    EXPECT_TRUE(intact);
    EXPECT_LE(ms, kWriteBoundMs);
    std::printf("fault %s: writes returned %s(slowest %ld ms); first write on the healthy PLC 0 in %ld ms\n",
                fault.name, seen.c_str(), slowest, ms);
    EXPECT_EQ(plc_->plc().peek(sim::kGlobal, "Speed", 2), hex("00 09"));
}

sim::ServerOptions with(void (*set)(sim::ServerOptions &)) {
    sim::ServerOptions o;
    set(o);
    return o;
}

INSTANTIATE_TEST_SUITE_P(
    Simulator, PlcFaults,
    ::testing::Values(
        // No answer at all: every exchange times out and closes the link.
        PlcFault{"silent", with([](auto &o) { o.silent = true; }), {ER_TIMEOUT, ER_INVALID}, true},
        // Answers that come after the time-out: the same, and the late answer
        // must not be taken for the next response.
        PlcFault{"slow", with([](auto &o) { o.delay_ms = 1500; }), {ER_TIMEOUT, ER_INVALID}, true},
        // Connections accepted and closed at once: the start-up fails.
        PlcFault{"refusing", with([](auto &o) { o.refuse = true; }), {ER_TIMEOUT, ER_INVALID}, true},
        // The connection drops after the start-up and the first resolve, in
        // the middle of the batch's first pass, and again on every new one.
        PlcFault{"drops-mid-batch", with([](auto &o) { o.close_after = 3; }), {ER_OK, ER_TIMEOUT, ER_INVALID}, false},
        // Every reply in two parts: the driver takes the first part.
        PlcFault{"split", with([](auto &o) { o.split = true; }), {ER_OK, ER_TIMEOUT, ER_INVALID}, false},
        // Every reply cut to 20 bytes: too short for a resolve answer.
        PlcFault{"truncated", with([](auto &o) { o.truncate = 20; }), {ER_TIMEOUT, ER_INVALID}, false},
        // Random bytes of the reply's length.
        PlcFault{"garbage", with([](auto &o) { o.garbage = true; }), {ER_OK, ER_TIMEOUT, ER_INVALID}, false}),
    [](const auto &info) {
        std::string n = info.param.name;
        for (char &c : n)
            if (c == '-') c = '_';
        return n;
    });

// The PLC is switched off in the middle of a batch (after the start-up and
// the first resolve) and in the middle of a write (after its resolve), then
// switched on again.
TEST_F(Fault, PlcSwitchedOffInTheMiddleOfABatchAndOfAWrite) {
    GuardedBatch batch(kBatch);
    long ms = 0;
    bool intact = false;
    // A PLC that goes away after three requests: start-up (two) and one resolve.
    plc_->start({.close_after = 3});
    testkit::reset_link_state();
    unsigned rc = read(batch, ms);
    expect_documented_failure(batch, rc, {ER_TIMEOUT, ER_INVALID});
    EXPECT_LE(ms, kReadBoundMs);
    switch_off_until_link_down(batch);
    plc_->start({});
    expect_healthy(batch, read(batch, ms));

    // Now within a write: the resolve is answered, then the PLC goes away.
    plc_->start({.close_after = 1});
    rc = write(e2e::kCount, hex("01 00 00 00"), ms, intact);
    EXPECT_TRUE(rc == ER_TIMEOUT || rc == ER_INVALID) << rc;
    EXPECT_TRUE(intact);
    EXPECT_LE(ms, kWriteBoundMs);
    switch_off_until_link_down(batch);
    plc_->start({});
    ASSERT_EQ(write(e2e::kCount, hex("02 00 00 00"), ms, intact), ER_OK);
    EXPECT_TRUE(intact);
    EXPECT_EQ(plc_->plc().peek(sim::kGlobal, "Count", 4), hex("00 02 00 00"));
}

// Nothing listens on the PLC's port: the connect is refused at once.
TEST_F(Fault, ConnectionRefusedFailsAtOnceAndTheLinkStartsWhenThePlcIsBack) {
    GuardedBatch batch(kBatch);
    plc_->stop();
    testkit::reset_link_state();
    long ms = 0;
    for (int call = 0; call < 3; ++call) {
        const unsigned rc = read(batch, ms);
        expect_documented_failure(batch, rc, {ER_TIMEOUT});
        EXPECT_EQ(rc, ER_TIMEOUT);
        EXPECT_LE(ms, 500) << "a refused connect does not wait";
    }
    bool intact = false;
    EXPECT_EQ(write(e2e::kSpeed, hex("01 00"), ms, intact), ER_TIMEOUT);
    EXPECT_TRUE(intact);
    plc_->start({});
    expect_healthy(batch, read(batch, ms));
}

// Faults of single replies on a live connection: the simulator answers, and
// the test damages its replies until it switches the damage off; the
// connection stays up throughout, so the very next call after the damage
// stops must succeed.
enum class Damage { None, Cut, Scrambled, Oversized, Trailing };

const char *name_of(Damage d) {
    switch (d) {
        case Damage::Cut: return "cut";
        case Damage::Scrambled: return "scrambled";
        case Damage::Oversized: return "oversized";
        case Damage::Trailing: return "trailing_frame";
        default: return "none";
    }
}

class ReplyFaults : public ::testing::TestWithParam<Damage> {
protected:
    void SetUp() override {
        dir_.write_tag_file(kPlcAddress, 0, kTags);
        preset(plc_);
        fake_.otherwise([this](std::span<const uint8_t> request) {
            Bytes reply = plc_.handle(request);
            switch (damage_.load()) {
                case Damage::None: break;
                case Damage::Cut: reply.resize(std::min<std::size_t>(reply.size(), 13 + (counter_++ % 12))); break;
                case Damage::Scrambled:
                    for (std::size_t i = 14; i < reply.size(); ++i) reply[i] = static_cast<uint8_t>(reply[i] * 73 + 41 + i);
                    break;
                // Longer than the driver's 4096-byte receive area; the tail
                // (at most 512 bytes) is drained before the next request.
                case Damage::Oversized: reply.resize(4096 + 500, 0xA7); break;
                // A stray frame glued to the reply.
                case Damage::Trailing: {
                    const Bytes stray = reply;
                    reply.insert(reply.end(), stray.begin(), stray.end());
                    break;
                }
            }
            return reply;
        });
        instance_ = std::make_unique<testkit::Instance>(kPlcAddress, fake_.port(), kTimeoutS);
    }
    void TearDown() override { testkit::release_tag_tables(); }

    sim::Plc plc_{kTags};
    std::atomic<Damage> damage_{Damage::None};
    std::size_t counter_ = 0;
    testkit::ScopedWorkdir dir_;
    testkit::FakePlc fake_;
    std::unique_ptr<testkit::Instance> instance_;
};

TEST_P(ReplyFaults, DamagedRepliesFailAsDocumentedAndTheNextCallSucceeds) {
    GuardedBatch batch(kBatch);
    long ms = 0;
    expect_healthy(batch, timed([&] { return batch.read(instance_->drv, &instance_->port.prop); }, ms));

    damage_ = GetParam();
    std::string seen;
    for (int call = 0; call < 4; ++call) {
        const unsigned rc = timed([&] { return batch.read(instance_->drv, &instance_->port.prop); }, ms);
        seen += std::to_string(rc) + " ";
        expect_documented_failure(batch, rc, {ER_OK, ER_TIMEOUT, ER_INVALID});
        EXPECT_LE(ms, kReadBoundMs);
        bool intact = false;
        const unsigned wrc = timed([&] { return guarded_write(instance_->drv, &instance_->port.prop, e2e::kLines, 3,
                                                              Bytes(9, 'z'), &intact); }, ms);
        EXPECT_TRUE(wrc == ER_OK || wrc == ER_TIMEOUT || wrc == ER_INVALID) << wrc;
        EXPECT_TRUE(intact);
        EXPECT_LE(ms, kWriteBoundMs);
        seen += "w" + std::to_string(wrc) + " ";
    }
    std::printf("damaged replies %s: read, write results %s\n", name_of(GetParam()), seen.c_str());
    if (GetParam() == Damage::Cut) {
        EXPECT_TRUE(link_up()) << "short replies do not take the link down";
    }

    damage_ = Damage::None;
    expect_healthy(batch, timed([&] { return batch.read(instance_->drv, &instance_->port.prop); }, ms));
    bool intact = false;
    EXPECT_EQ(guarded_write(instance_->drv, &instance_->port.prop, e2e::kSpeed, 0, hex("05 00"), &intact), ER_OK);
    EXPECT_TRUE(intact);
}

INSTANTIATE_TEST_SUITE_P(LiveConnection, ReplyFaults,
                         ::testing::Values(Damage::Cut, Damage::Scrambled, Damage::Oversized, Damage::Trailing),
                         [](const auto &info) { return std::string(name_of(info.param)); });

// A stray frame that arrives after the answer it follows (a late duplicate)
// is drained before the next request instead of being taken for its answer.
TEST_F(Fault, AStaleReplyAfterAWriteIsNotTakenForTheNextAnswer) {
    plc_->stop();
    testkit::FakePlc fake;
    sim::Plc &plc = plc_->plc();
    const Bytes stale = hex("00 00 00 10 FF FF FF EF 00 07 00 00 1E 09 00 00 00 00 00 00 00 00 00 00 00 00");
    // The write: its resolve, then an acknowledgement followed by the stray frame.
    fake.reply(testkit::resolve({{.area = 0x84, .location = {0, 0, 0, 8}}})).with_stale(testkit::ack(), stale);
    fake.otherwise([&plc](std::span<const uint8_t> request) { return plc.handle(request); });
    testkit::Instance instance(kPlcAddress, fake.port(), kTimeoutS);
    bool intact = false;
    ASSERT_EQ(guarded_write(instance.drv, &instance.port.prop, e2e::kSpeed, 0, hex("05 00"), &intact), ER_OK);
    EXPECT_TRUE(intact);
    // The frame is queued at the driver's socket before the next request.
    ASSERT_TRUE(fake.wait_idle());
    int queued = 0;
    for (int i = 0; i < 200 && queued < static_cast<int>(stale.size()); ++i) {
        ::ioctl(instance.settings()->serial_handle, FIONREAD, &queued);
        if (queued < static_cast<int>(stale.size())) ::usleep(5000);
    }
    ASSERT_EQ(queued, static_cast<int>(stale.size()));
    GuardedBatch batch(kBatch);
    expect_healthy(batch, batch.read(instance.drv, &instance.port.prop));
}

}  // namespace
}  // namespace kplc::fault
