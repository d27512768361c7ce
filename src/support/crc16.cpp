// CRC-16 over at most 255 bytes (the count is an 8-bit number).
#include "support/crc16.hpp"

#include "kplc/support.h"

extern "C" {

KPLC_API unsigned int crc16(unsigned char *puchMsg, unsigned char usDataLen) {
    uint8_t hi = 0xFF;
    uint8_t lo = 0xFF;
    // No message: the initial register, as for zero bytes.
    if (puchMsg == nullptr) usDataLen = 0;
    for (unsigned i = 0; i < usDataLen; ++i) {
        const auto index = static_cast<uint8_t>(hi ^ puchMsg[i]);
        hi = lo ^ kplc::crc::auchCRCHi[index];
        lo = kplc::crc::auchCRCLo[index];
    }
    // The byte that goes first on the line is the high half of the result.
    return (static_cast<unsigned>(hi) << 8) | lo;
}

}  // extern "C"
