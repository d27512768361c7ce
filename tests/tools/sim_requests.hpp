// Request frames for talking to the simulator directly, built with the
// driver's own frame writer, and small readers for its replies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/frame.hpp"
#include "testkit/fake_plc.hpp"

namespace kplc::simtest {

using testkit::Bytes;
using proto::Command;

// A request frame with the given body.
template <typename Body>
Bytes frame(Command command, uint16_t seq, Body body) {
    Bytes buf(4096);
    proto::FrameWriter w(buf);
    w.begin(command, seq);
    body(w);
    buf.resize(w.finish());
    return buf;
}

inline Bytes catalogue_request(Command command, uint16_t seq) {
    return frame(command, seq, [](auto &w) { w.zeros(4); });
}

// Symbol resolve for `names` in `scope` (-1 global, else a program id).
inline Bytes resolve_request(uint16_t seq, int scope, const std::vector<std::u16string> &names) {
    return frame(Command::SymbolResolve, seq, [&](auto &w) {
        w.u16(0x0001);
        w.scope(scope);
        w.u16(static_cast<uint16_t>(names.size()));
        for (const auto &name : names) w.symbol(std::vector<uint16_t>(name.begin(), name.end()));
    });
}

struct Location {
    uint8_t area;
    uint16_t words;
    uint32_t location;
};

inline Bytes read_request(uint16_t seq, const std::vector<Location> &entries) {
    return frame(Command::ReadByLocation, seq, [&](auto &w) {
        w.u8(0);
        w.u16(static_cast<uint16_t>(entries.size()));
        w.zeros(3);
        for (const auto &e : entries) w.u8(0), w.u8(e.area), w.u16(e.words), w.u32(e.location);
    });
}

inline Bytes word_write_request(uint16_t seq, uint8_t area, uint32_t location, const Bytes &data) {
    return frame(Command::WordWrite, seq, [&](auto &w) {
        w.u8(0), w.u8(area), w.u32(static_cast<uint32_t>(data.size() / 2)), w.u32(location), w.bytes(data);
    });
}

inline Bytes bit_write_request(uint16_t seq, uint8_t area, uint32_t location, uint8_t value, uint16_t mask) {
    return frame(Command::WordAreaBitWrite, seq,
                 [&](auto &w) { w.u16(0x0001), w.u8(area), w.u32(location), w.u8(value), w.u16(mask); });
}

inline Bytes set_reset_request(uint16_t seq, bool set, uint8_t device, uint16_t location) {
    return frame(set ? Command::SetBit : Command::ResetBit, seq,
                 [&](auto &w) { w.u8(0x01), w.u8(device), w.u16(location); });
}

inline uint16_t be16(const Bytes &b, std::size_t at) { return static_cast<uint16_t>(b.at(at) << 8 | b.at(at + 1)); }
inline uint32_t be32(const Bytes &b, std::size_t at) { return uint32_t{be16(b, at)} << 16 | be16(b, at + 2); }

// Reply status (bytes 10-11).
inline uint16_t status(const Bytes &reply) { return be16(reply, 10); }
// Reply data from offset 14.
inline Bytes data(const Bytes &reply) { return Bytes(reply.begin() + 14, reply.end()); }

// A resolve item as the driver reads it, relative to the item's cursor.
struct Item {
    uint8_t area;
    uint32_t location;
    uint8_t byte29;
    uint8_t byte30;
    uint8_t extensions;
};

// The items of a resolve reply, walked the way the driver walks them.
inline std::vector<Item> items(const Bytes &reply) {
    std::vector<Item> out;
    proto::ResolveCursor c(reply);
    while (true) {
        const auto item = c.item();
        const auto b29 = c.at(29);
        const auto b30 = c.at(30);
        const auto g = c.at(40);
        if (!item || !b29 || !b30 || !g) break;
        out.push_back({item->area,
                       uint32_t{item->location[0]} << 24 | uint32_t{item->location[1]} << 16 |
                           uint32_t{item->location[2]} << 8 | item->location[3],
                       *b29, *b30, *g});
        c.advance();
    }
    return out;
}

}  // namespace kplc::simtest
