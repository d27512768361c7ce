#include "write/units.hpp"

#include "format/tag_geometry.hpp"

namespace kplc::write {

void to_record_units(uint8_t bits, PLC_DRV_REG_ADDR &reg_addr, PLC_DRV_BUFF &buff) noexcept {
    const unsigned shift = format::write_unit_shift(bits);
    buff.length >>= shift;
    reg_addr.reg_addr >>= shift;
}

ElementRun element_run(uint32_t words, const PLC_DRV_REG_ADDR &reg_addr, const PLC_DRV_BUFF &buff) noexcept {
    // Records count a 64-bit element as two 32-bit units.
    const unsigned shift = words == 4 ? 1 : 0;
    return ElementRun{reg_addr.reg_addr >> shift, buff.length >> shift};
}

}  // namespace kplc::write
