// The write entry: one runtime write becomes one dispatch of the write path.
// The write is attempted first; when it leaves the link down (it could not
// connect, or an exchange failed and closed the socket) the link is started
// again at once, program catalogue included, so that the next request finds
// it up. The runtime still receives the write's own result.
#include <cstdio>

#include "support/instance.hpp"
#include "protocol/link.hpp"
#include "state/process_state.hpp"
#include "kplc/driver.h"

extern "C" {

KPLC_API unsigned int kplc_write(void *drv, CommunicationProperty *setting, Reg *reg, void *buf) {
    (void)setting;
    PLC_DRV_INIT_SETTINGS *settings = kplc::settings_of(drv);

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

    const unsigned result = zel_plc_write(&reg_addr, &buff, settings, reg->_devIndex);
    if (result != ER_OK)
        std::printf("[PLC]: at line %d write error regId(%d)-regNums(%d)-regAddr(%d) \r\n", __LINE__,
                    static_cast<int>(reg->regId), static_cast<int>(reg->regNums), static_cast<int>(reg->regAddr));

    if (kplc::state().init == 0 && kplc::start_link(settings) != ER_OK) return ER_TIMEOUT;
    return result;
}

}  // extern "C"
