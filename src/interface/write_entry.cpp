// The write entry and the write path's dispatch.
#include "kplc/driver.h"
#include "write/dispatch.hpp"

extern "C" {

KPLC_API unsigned int kplc_write(void *drv, CommunicationProperty *setting, Reg *reg, void *buf) {
    (void)setting;
    return kplc::write::write_request(drv, reg, buf);
}

KPLC_API unsigned int zel_plc_write(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                                    int devIndex) {
    return kplc::write::dispatch(reg_addr, buff, settings, devIndex);
}

}  // extern "C"
