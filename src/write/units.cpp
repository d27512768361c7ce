#include "write/units.hpp"

namespace kplc::write {

void to_record_units(uint8_t bits, PLC_DRV_REG_ADDR &reg_addr, PLC_DRV_BUFF &buff) noexcept {
    unsigned shift = 0;
    if (bits == 32 || bits == 64) shift = 2;
    if (bits == 16) shift = 1;
    buff.length >>= shift;
    reg_addr.reg_addr >>= shift;
}

ElementRun element_run(uint32_t words, const PLC_DRV_REG_ADDR &reg_addr, const PLC_DRV_BUFF &buff) noexcept {
    // Records count a 64-bit element as two 32-bit units.
    const unsigned shift = words == 4 ? 1 : 0;
    return ElementRun{reg_addr.reg_addr >> shift, buff.length >> shift};
}

}  // namespace kplc::write
