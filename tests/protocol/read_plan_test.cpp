// The read pass without a socket: names and location entries a batch turns
// into, refusals, and the decoding of values into the runtime's buffers.
#include <gtest/gtest.h>

#include <cstring>

#include "kplc/driver.h"
#include "protocol/read_plan.hpp"
#include "testkit/fake_plc.hpp"

namespace {

namespace rd = kplc::proto::read;
using namespace kplc::testkit;

struct TagSpec {
    std::string name;
    uint8_t bits = 16;
    var_attr attr = NORMAL;
    std::array<uint32_t, 6> bounds{};  // ar_min, ar_max, ar1_min, ar1_max, ar2_min, ar2_max
    uint32_t byte_len = 0;
    uint16_t type = 195;
    uint8_t address = 30;
};

TagSpec text(uint32_t byte_len, std::array<uint32_t, 6> bounds = {}, uint16_t type = 208) {
    return {.name = "S", .bits = 0, .attr = STRING, .bounds = bounds, .byte_len = byte_len, .type = type};
}

// A batch of requests; tag id k + 1 names the k-th tag added unless given.
struct Batch {
    std::vector<kplc_tag_str> tags;
    std::vector<Reg> regs;
    std::array<std::array<uint8_t, 64>, 10> storage{};
    std::vector<DrvRWBuf> records;
    std::vector<DrvRWBuf *> bufs;
    rd::PassPlan pass;

    void add(const TagSpec &s, uint32_t addr, uint32_t nums, int id = -1) {
        kplc_tag_str &t = tags.emplace_back();
        std::strncpy(t.name, s.name.c_str(), sizeof t.name - 1);
        t.bits = s.bits, t.attr = s.attr, t.byte_len = s.byte_len, t.type = s.type, t.address = s.address;
        t.ar_min = s.bounds[0], t.ar_max = s.bounds[1], t.ar1_min = s.bounds[2];
        t.ar1_max = s.bounds[3], t.ar2_min = s.bounds[4], t.ar2_max = s.bounds[5];
        t.mode_type = kplc::proto::kGlobalScope;
        Reg &r = regs.emplace_back();
        r.regId = static_cast<uint16_t>(id >= 0 ? id : static_cast<int>(tags.size()));
        r.regAddr = addr, r.regNums = nums;
        storage.at(records.size()).fill(0xEE);
        records.push_back(DrvRWBuf{0, storage.at(records.size()).data(), 0, 0x55});
    }
    void plan() {
        for (auto &r : records) bufs.push_back(&r);
        rd::plan_pass(pass, tags, regs, bufs, kplc::proto::kGlobalScope, {});
    }
    Bytes resolve_request() const {
        Bytes out(rd::kFrameSize);
        out.resize(rd::build_resolve_request(pass, out, 0));
        return out;
    }
    Bytes location_request(const Bytes &response) {
        Bytes out(rd::kFrameSize);
        out.resize(rd::build_location_request(pass, response, out, 0));
        return out;
    }
    std::string value(std::size_t i, std::size_t n) const { return to_hex(std::span(storage[i]).first(n)); }
};

TEST(ReadPlan, BoolBitsAndNumbersAreTakenApartByWidth) {
    // Class 6 (DM) and 30 (no device) take the bit number from item byte 30
    // and send the location unchanged; class 27 (B) takes it from the
    // location's low nibble, which the entry clears. Words arrive high byte
    // first and are stored low byte first, in the order they arrive.
    Batch b;
    b.add({.name = "D", .bits = 1, .address = 6}, 0, 1);
    b.add({.name = "N", .bits = 1}, 0, 1);
    b.add({.name = "K", .bits = 1, .address = 27}, 0, 1);
    b.add({.name = "I"}, 0, 2);
    b.add({.name = "W", .bits = 32}, 0, 4);
    b.add({.name = "L", .bits = 64}, 0, 8);
    b.plan();
    const Bytes request = b.location_request(resolve({{.area = 1, .location = {0, 0, 0, 0x47}, .byte30 = 0x39},
                                                                     {.area = 2, .location = {0, 0, 0, 0x47}, .byte30 = 0x02},
                                                                     {.area = 3, .location = {0, 0, 0, 0x47}}, {}, {}, {}}));
    // Entries: area, word count, location (byte 3 of the 8 is the word count).
    EXPECT_EQ(to_hex(std::span(request).subspan(rd::kLocationHeaderSize)),
              "00 01 00 01 00 00 00 47 00 02 00 01 00 00 00 47 00 03 00 01 00 00 00 40 00 00 00 01 00 00 00 00 "
              "00 00 00 02 00 00 00 00 00 00 00 04 00 00 00 00");
    const Bytes resp = values(hex("02 00 00 04 00 40 12 34 AA BB CC DD 11 22 33 44 55 66 77 88"));
    ASSERT_EQ(rd::decode_values(b.pass, resp, b.bufs), ER_OK);
    // Bits 9, 2 and 7 of 0200, 0004 and 0040.
    EXPECT_EQ(b.value(0, 2) + " " + b.value(1, 2) + " " + b.value(2, 2), "01 EE 01 EE 00 EE");
    EXPECT_EQ(b.value(3, 3), "34 12 EE");
    EXPECT_EQ(b.value(4, 5), "BB AA DD CC EE");
    EXPECT_EQ(b.value(5, 9), "22 11 44 33 66 55 88 77 EE");
}

TEST(ReadPlan, RefusedRequestIsLeftOutAndTheOthersAreRead) {
    struct Case { TagSpec tag; uint32_t nums; rd::Refusal want; int id = -1; } cases[] = {
        {{.name = "X"}, 2, rd::Refusal::UnknownTag, 0},
        {{.name = "X"}, 2, rd::Refusal::UnknownTag, 3},
        {{.name = "X", .bits = 32}, 8, rd::Refusal::NotOneElement},
        {{.name = "X", .bits = 8, .type = 194}, 1, rd::Refusal::UnsupportedWidth},
        {{.name = "X", .bits = 0, .type = 213}, 4, rd::Refusal::UnsupportedWidth},  // STRING2
        {text(2, {}, 215), 1, rd::Refusal::EmptyStringElement},
        {text(21), 21, rd::Refusal::NotOneElement},
        {text(601, {0, 3}), 1200, rd::Refusal::ChunkTooWide},
        {{.name = std::string(252, 'n'), .attr = ARRAY, .bounds = {0, 9}}, 2, rd::Refusal::BadName},
        {{.name = "X", .attr = ARRAY2, .bounds = {0, 1, 1, 0}}, 2, rd::Refusal::BadName},
        {{.name = "X"}, 2, rd::Refusal::NoBuffer},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(rd::describe(c.want));
        Batch b;
        b.add(c.tag, 0, c.nums, c.id);
        b.add({.name = "Ok"}, 0, 2);
        if (c.want == rd::Refusal::NoBuffer) b.records[0].buff = nullptr;
        b.plan();
        EXPECT_TRUE(b.pass.requests[0].in_scope);
        EXPECT_EQ(b.pass.requests[0].refusal, c.want);
        // The resolve carries the one name "Ok": 18 bytes, its length and two units.
        EXPECT_TRUE(to_hex(b.resolve_request()).ends_with("00 01 00 02 00 4F 00 6B"));
    }
}

TEST(ReadPlan, ScopeThatDoesNotFitOneExchangeIsRefusedWhole) {
    struct Case {
        const char *what;
        std::vector<std::pair<TagSpec, uint32_t>> requests;  // tag, regNums
        bool fits;
        std::size_t resolve_size = 0;  // checked when not 0
    };
    const TagSpec strings = text(101, {0, 99});
    auto named = [](std::size_t len) { return TagSpec{.name = std::string(len, 'a')}; };
    // Resolve: 18 bytes, then 2 + 2 * units per name; 7 x 512 + 494 = 4078.
    std::vector<std::pair<TagSpec, uint32_t>> full(7, {named(255), 2});
    full.push_back({named(246), 2});
    auto over = full;
    over.back().first = named(247);
    const Case cases[] = {
        {"resolve of exactly 4096 bytes", full, true, rd::kFrameSize},
        {"resolve of 4098 bytes", over, false},
        {"values of 14 + 40 x 102 bytes", {{strings, 4000}}, true},
        {"values of 14 + 41 x 102 bytes", {{strings, 4100}}, false},
        {"a million elements", {{{.name = "A", .attr = ARRAY, .bounds = {0, 0x7FFFFFFF}}, 2000000}, {named(1), 2}}, false},
        // 24 bytes per resolve item: the 171st item's location lies past 4096.
        {"170 names resolve within one answer", {{{.name = "A", .attr = ARRAY, .bounds = {0, 199}}, 340}}, true},
        {"171 names cannot", {{{.name = "A", .attr = ARRAY, .bounds = {0, 199}}, 342}}, false},
    };
    for (const Case &c : cases) {
        Batch b;
        for (const auto &[tag, nums] : c.requests) b.add(tag, 0, nums);
        b.plan();
        EXPECT_EQ(b.pass.reading, c.fits ? c.requests.size() : 0u) << c.what;
        EXPECT_EQ(b.pass.requests[0].refusal, c.fits ? rd::Refusal::None : rd::Refusal::ScopeTooLarge) << c.what;
        if (c.resolve_size != 0) {
            EXPECT_EQ(b.resolve_request().size(), c.resolve_size) << c.what;
        }
    }
}

}  // namespace
