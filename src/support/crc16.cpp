// CRC-16 over at most 255 bytes (the count is an 8-bit number).
#include "support/crc16.hpp"

namespace kplc::crc {

unsigned int crc16(const unsigned char *puchMsg, unsigned char usDataLen) noexcept {
    uint8_t hi = 0xFF;
    uint8_t lo = 0xFF;
    // No message: the initial register, as for zero bytes.
    if (puchMsg == nullptr) usDataLen = 0;
    for (unsigned i = 0; i < usDataLen; ++i) {
        const auto index = static_cast<uint8_t>(hi ^ puchMsg[i]);
        hi = lo ^ auchCRCHi[index];
        lo = auchCRCLo[index];
    }
    // The byte that goes first on the line is the high half of the result.
    return (static_cast<unsigned>(hi) << 8) | lo;
}

}  // namespace kplc::crc
