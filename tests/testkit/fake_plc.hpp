// A scripted fake PLC for byte-exact tests: the simulator's server on
// 127.0.0.1 (ephemeral port, TCP or UDP) on a thread of the test process,
// whose responder hook answers each request with the next step of a script
// and records every request frame.
//
//   FakePlc plc;
//   plc.reply(catalogue_first()).reply(catalogue({{0, u"Main"}}))
//      .reply(resolve({{.area = 0x84, .location = {1, 2, 3, 4}}}))
//      .reply(values(hex("12 34")));
//   ... drive the library against 127.0.0.1:plc.port() ...
//   EXPECT_EQ(to_hex(plc.requests()[2]), "00 00 00 18 FF FF FF E7 ...");
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "harness/work_folder.hpp"

namespace kplc::testkit {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

// "00 0c 28" or "000C28" -> bytes (blanks ignored, case-insensitive).
Bytes hex(std::string_view text);
// bytes -> "00 0C 28" (upper case, one blank between bytes).
std::string to_hex(std::span<const uint8_t> bytes);

class FakePlc {
public:
    enum class Transport { Tcp, Udp };
    static constexpr uint32_t kLoopback = harness::kLoopback;

    // With `tags`, the simulated PLC serving that tag file answers every
    // request once the script is used up; without, nothing does.
    explicit FakePlc(Transport transport = Transport::Tcp, std::string_view tags = {});
    ~FakePlc();
    FakePlc(const FakePlc &) = delete;
    FakePlc &operator=(const FakePlc &) = delete;

    [[nodiscard]] uint16_t port() const;
    // A loopback port that nothing listens on (connects are refused).
    static uint16_t closed_port();

    // Script steps, each consumed by one received request, in order. With a
    // tag file, empty `bytes` stand for the simulated PLC's own answer.
    FakePlc &reply(Bytes bytes);                      // answer with these bytes
    FakePlc &silence();                               // answer nothing (forces a time-out)
    FakePlc &close();                                 // close the connection instead of answering
    FakePlc &split(Bytes bytes, std::size_t first, std::chrono::milliseconds pause);  // two segments
    FakePlc &with_stale(Bytes bytes, Bytes stale);    // answer, then send `stale` unasked

    // Every request frame received so far, in order (framed by its data_len).
    [[nodiscard]] std::vector<Bytes> requests() const;
    void forget_requests();  // empties that log (long runs)
    // Connections accepted so far (TCP).
    [[nodiscard]] std::size_t connections() const;
    // Waits until at least `count` requests have arrived.
    bool wait_for_requests(std::size_t count, std::chrono::milliseconds timeout = 2000ms) const;
    // Waits until every request received so far has been answered completely,
    // the second segment of a split() and the stale bytes of a with_stale()
    // included. The fake sends those only once the driver has read what came
    // before (so the two never merge into one read); call this before the next
    // exchange when that exchange must find the stale bytes already queued.
    bool wait_idle(std::chrono::milliseconds timeout = 2000ms) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Response builders. Every response starts with a 14-byte frame header that
// the driver does not examine (filled with a plausible header here).

// Answer to the first catalogue request: any non-empty frame.
Bytes catalogue_first();
// Program catalogue: count at 14, then per entry 2 bytes, L = 2 + name bytes,
// 1 byte, program id, the UTF-16BE name, 1 byte.
Bytes catalogue(const std::vector<std::pair<uint8_t, std::u16string>> &programs);

// One resolve item as the driver reads it (offsets relative to the item's
// cursor position c): area at c+21, location at c+22..25, bit numbers at c+29
// and c+30, extension count g at c+40; the next item starts at c + 24 + 4g.
struct ResolveItem {
    uint8_t area = 0;
    std::array<uint8_t, 4> location{};
    uint8_t byte29 = 0;
    uint8_t byte30 = 0;
    uint8_t extensions = 0;
};
Bytes resolve(const std::vector<ResolveItem> &items);
// Read by location answer: the header, then the value bytes from offset 14.
Bytes values(const Bytes &payload);
// A write acknowledgement of `size` bytes (at least 12) with status byte 11.
Bytes ack(std::size_t size = 14, uint8_t status = 0);
// n bytes seed, seed + 7, seed + 14, ... (mod 256): no run of equal bytes.
Bytes pattern(std::size_t n, uint8_t seed = 0);

}  // namespace kplc::testkit
