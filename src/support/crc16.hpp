// The CRC-16 with the reflected polynomial 0xA001 and initial value 0xFFFF,
// the common one of serial field buses, computed a byte at a time with the usual pair of tables.
#pragma once

#include <array>
#include <cstdint>

namespace kplc::crc {

inline constexpr uint16_t kReflectedPoly = 0xA001;

// One table entry: the register change that one input byte causes, found by
// shifting the byte through the reflected polynomial eight times.
constexpr uint16_t reflected_entry(unsigned index) noexcept {
    uint16_t reg = static_cast<uint16_t>(index);
    for (int bit = 0; bit < 8; ++bit)
        reg = (reg & 1u) != 0 ? static_cast<uint16_t>((reg >> 1) ^ kReflectedPoly) : static_cast<uint16_t>(reg >> 1);
    return reg;
}

// The byte-wise algorithm keeps the register in two halves named by the byte
// they put on the line: `hi` holds the register's low byte (sent first), `lo`
// its high byte. So the "Hi" table is the low byte of each entry and the "Lo"
// table the high byte, which makes both equal the tables commonly published for this CRC.
constexpr std::array<uint8_t, 256> make_hi_table() noexcept {
    std::array<uint8_t, 256> t{};
    for (unsigned i = 0; i < t.size(); ++i) t[i] = static_cast<uint8_t>(reflected_entry(i) & 0xFF);
    return t;
}

constexpr std::array<uint8_t, 256> make_lo_table() noexcept {
    std::array<uint8_t, 256> t{};
    for (unsigned i = 0; i < t.size(); ++i) t[i] = static_cast<uint8_t>(reflected_entry(i) >> 8);
    return t;
}

inline constexpr std::array<uint8_t, 256> auchCRCHi = make_hi_table();
inline constexpr std::array<uint8_t, 256> auchCRCLo = make_lo_table();

// The CRC of the first `usDataLen` bytes (none without a message), the byte
// that goes first on the line in the high half.
unsigned int crc16(const unsigned char *puchMsg, unsigned char usDataLen) noexcept;

}  // namespace kplc::crc
