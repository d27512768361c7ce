// The simulated PLC: answers one request frame with one reply frame.
//
// Reply frame:
//   0  u32  data_len (reply length - 10)
//   4  4    complement of bytes 0-3
//   8  u16  sequence number of the request
//   10 u16  status: 0 done; otherwise the request was refused (kStatus*)
//   12 u16  command code of the request
//   14      data
// The driver reads data from offset 14 and, for a bit write, byte 11.
//
// Data by command:
//   first catalogue   u16 protocol version, u16 program count
//   program catalogue u8 count, then per program: u16 entry number, u8 L
//                     (name bytes + 2), u8 0, u8 program id, the name as
//                     UTF-16 code units high byte first, u8 0
//   symbol resolve    u8 0, u16 item count, then one item per name in request
//                     order. Item (24 + 4g bytes): u16 type code, u16 element
//                     bytes, u8 area, u32 location, 3 zero bytes, u16 bit
//                     number, 9 zero bytes, u8 g, then g subscripts of the name
//                     (s32 each). Resolution stops at the first name the PLC
//                     does not know (status kStatusUnknownName), so the reply
//                     is too short for that name's item.
//   read by location  the words of every location entry, back to back
//   word write, word-area bit write, set bit, reset bit: none
// A refused request gets the 14-byte header alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "format/frame_limits.hpp"
#include "format/wire.hpp"
#include "memory.hpp"
#include "tag_space.hpp"

namespace kplc::sim {

inline constexpr uint16_t kStatusOk = wire::kStatusDone;
inline constexpr uint16_t kStatusUnknownCommand = 0x0101;
inline constexpr uint16_t kStatusMalformed = 0x0102;
inline constexpr uint16_t kStatusUnknownName = 0x0103;
inline constexpr uint16_t kStatusBadLocation = 0x0104;
inline constexpr uint16_t kStatusTooLarge = 0x0105;

// Largest request data_len the simulator frames; larger lengths are taken for
// a broken stream.
inline constexpr uint32_t kMaxRequestDataLen = 0x10000;
// Largest reply the simulator builds.
inline constexpr std::size_t kMaxReply = 0x10000 + wire::kReplyDataOffset;
// The driver takes a reply from one receive of at most kReceiveArea bytes;
// the program catalogue lists only as many programs as fit.
using proto::kReceiveArea;

class Plc {
public:
    // Loads tag definitions (the text of a tag file). Tags that cannot be
    // simulated are reported in warnings().
    explicit Plc(std::string_view tag_text);
    // Reads the tag file at `path`; throws std::runtime_error when it cannot
    // be read or holds no definitions.
    static Plc from_file(const std::string &path);

    // Answers one complete request frame (10 + data_len bytes). Any byte
    // string is acceptable input: what cannot be understood is refused with a
    // status, never trusted.
    std::vector<uint8_t> handle(std::span<const uint8_t> request);

    [[nodiscard]] const std::vector<std::string> &warnings() const { return warnings_; }
    [[nodiscard]] const TagSpace &tags() const { return tags_; }

    // Direct access to a variable by name, for tests and presets: `bytes`
    // bytes as they travel, from the location `name` resolves to in `scope`.
    std::optional<std::vector<uint8_t>> peek(int scope, std::string_view name, std::size_t bytes);
    bool poke(int scope, std::string_view name, std::span<const uint8_t> bytes);
    std::optional<bool> peek_bit(int scope, std::string_view name);
    bool poke_bit(int scope, std::string_view name, bool on);

    // The memory as text (Memory::save), and loading it back (Memory::load,
    // which throws std::runtime_error for text that does not fit).
    std::string save_state();
    void load_state(std::istream &in);

private:
    std::vector<uint8_t> dispatch(std::span<const uint8_t> request);

    std::mutex mutex_;  // the server thread answers while a test peeks
    std::vector<std::string> warnings_;
    Memory memory_;
    TagSpace tags_;
};

}  // namespace kplc::sim
