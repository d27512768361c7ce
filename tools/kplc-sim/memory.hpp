// The simulated PLC's data memory: one area per device class, plus one area for
// text.
//
// A location is the bit address of a datum inside its area: bit b of word w is
// (w << 4) | b, so the low four bits name a bit inside a 16-bit word and the
// rest the word. What a word operation does with the low four bits depends on
// the area:
//   - device areas (area code = the device class of the tag file, 0 to 44) are
//     word addressed: word reads and writes start at word (location >> 4) and
//     ignore the bit, which is how a BOOL's word is read with its bit number
//     still in the location;
//   - the text area (kTextArea) is byte addressed: byte B has location B << 3
//     (bit 0 or 8 of its word), and word reads and writes start at byte
//     (location >> 3). That lets a string be read and written from any
//     character, odd ones included.
// Words are stored as they travel, high byte first, so byte 2w is the high
// byte of word w and bit b of the word is bit b of (byte 2w << 8 | byte 2w+1).
//
// Set bit / reset bit requests carry only the device class and the low 16 bits
// of a location; the device class names the area, so bits up to location
// 0xFFFF (word 4095) of a device area are reachable that way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <iosfwd>
#include <optional>
#include <string>
#include <span>
#include <vector>

namespace kplc::sim {

class Memory {
public:
    // Area code of the byte-addressed text area. Device classes end at 44, so
    // it cannot collide with a device area.
    static constexpr uint8_t kTextArea = 0x80;
    // No area grows beyond this; locations stay far inside 32 bits.
    static constexpr std::size_t kMaxAreaBytes = std::size_t{16} << 20;

    // --- Allocation, while the tag file is loaded. Each returns the location
    // of the first datum, or nullopt when the area would exceed kMaxAreaBytes.

    // `words` whole words, starting on a word boundary.
    std::optional<uint32_t> allocate_words(uint8_t area, uint64_t words);
    // One bit for a scalar BOOL. Consecutive scalar BOOLs of an area share
    // words, 16 to a word, so writing one must leave its neighbours alone.
    std::optional<uint32_t> allocate_bit(uint8_t area);
    // `bytes` bytes of text, starting on a word boundary.
    std::optional<uint32_t> allocate_text(uint64_t bytes);

    // Gives every area its final size: what was allocated plus spare room, as
    // a real device area is larger than the tags declared in it (a read of a
    // few words past the last tag still answers).
    void seal();

    // --- Access. Every operation checks the whole range first and changes
    // nothing when any byte lies outside the area.

    [[nodiscard]] bool has_area(uint8_t area) const { return areas_.count(area) != 0; }
    // `words` words from `location`.
    [[nodiscard]] std::optional<std::span<const uint8_t>> read(uint8_t area, uint32_t location, uint64_t words) const;
    // Stores `data` (whole words as they travel, or any byte count in the text area).
    bool write(uint8_t area, uint32_t location, std::span<const uint8_t> data);
    // Word-area bit write: value 1 ORs `mask` into the word at `location`,
    // value 0 ANDs it (the sender passes the complement of the bit).
    bool write_masked(uint8_t area, uint32_t location, bool value, uint16_t mask);
    // Sets or clears the bit that `location` names.
    bool set_bit(uint8_t area, uint32_t location, bool on);
    [[nodiscard]] std::optional<bool> bit(uint8_t area, uint32_t location) const;

    // --- State: every area as text, for keeping a simulator's values across
    // restarts. One line per 32 bytes that are not all zero:
    //   AREA OFFSET BYTES...   (area code, byte offset, bytes; all hexadecimal)
    void save(std::ostream &out) const;
    // Loads what save() wrote, on top of the current contents. Throws
    // std::runtime_error naming the line when a line does not fit this memory
    // (unknown area, bytes beyond its end) or is not of that form; nothing is
    // changed then.
    void load(std::istream &in);

private:
    struct Area {
        bool byte_addressed = false;
        std::vector<uint8_t> bytes;
        uint64_t used = 0;            // bytes handed out so far
        uint32_t bool_word = 0;       // word holding the latest scalar BOOLs
        unsigned bool_bit = 16;       // next free bit in it (16: none free)
    };

    Area &area_for(uint8_t code);
    // Byte offset where a word operation of `bytes` bytes at `location` starts,
    // when the whole range lies inside the area.
    static std::optional<std::size_t> start_of(const Area &a, uint32_t location, uint64_t bytes);
    // Byte offset of the word that holds the bit `location` names.
    static std::optional<std::size_t> word_of(const Area &a, uint32_t location);

    std::map<uint8_t, Area> areas_;
};

}  // namespace kplc::sim
