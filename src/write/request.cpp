// The write entry: one runtime write becomes one dispatch of the write path.
// The write is attempted first; when it leaves the link down (it could not
// connect, or an exchange failed and closed the socket) the link is started
// again at once, program catalogue included, so that the next request finds
// it up. The runtime still receives the write's own result.
#include <cstdio>

#include "kplc/driver.h"
#include "protocol/link.hpp"
#include "support/instance.hpp"
#include "write/dispatch.hpp"

namespace kplc::write {

unsigned write_request(void *drv, const Reg *reg, void *buf) noexcept {
    PLC_DRV_INIT_SETTINGS *settings = settings_of(drv);

    // The dispatch converts these in place; `reg` keeps the runtime's values
    // for the report below.
    PLC_DRV_REG_ADDR reg_addr{};
    reg_addr.device_id = reg->plcNo;
    reg_addr.reg_type = reg->regType;
    reg_addr.reg_id = reg->regId;
    reg_addr.reg_addr = reg->regAddr;
    reg_addr.sub_addr = reg->subAddr;
    PLC_DRV_BUFF buff{};
    buff.length = reg->regNums;
    buff.buff = static_cast<unsigned char *>(buf);

    const unsigned result = dispatch(&reg_addr, &buff, settings, reg->_devIndex);
    if (result != ER_OK)
        std::printf("[PLC]: at line %d write error regId(%d)-regNums(%d)-regAddr(%d) \r\n", __LINE__,
                    static_cast<int>(reg->regId), static_cast<int>(reg->regNums), static_cast<int>(reg->regAddr));

    if (!link::up() && link::start(settings) != ER_OK) return ER_TIMEOUT;
    return result;
}

}  // namespace kplc::write
