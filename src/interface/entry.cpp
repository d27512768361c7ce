// The entry points the panel runtime finds by name, and the framework's init.
#include <cstdio>
#include <cstring>

#include "format/tag_limits.hpp"
#include "kplc/driver.h"
#include "protocol/read_batch.hpp"
#include "state/process_state.hpp"
#include "support/instance.hpp"
#include "write/tables.hpp"

namespace {

using kplc::format::kIoctlMultiRead;
// Multi-read properties announced to the runtime: 8 requests per batch, 16 packages.
constexpr Mulity_Property kMultiRead{8, 16};

constexpr uint16_t kDriverNo = 714;
constexpr uint16_t kDriverVersion = 10;
constexpr uint16_t kFrameworkDriverNo = 722;
constexpr uint16_t kFrameworkVersion = 1;

}  // namespace

extern "C" {

KPLC_API void *kplc_create(void) { return kplc::create_instance(); }

// A new instance takes over the link: its endpoint becomes the link's, and
// both paths forget the tag tables they loaded. Nothing is connected yet.
KPLC_API unsigned int kplc_init(void *drv, CommunicationProperty *setting) {
    PLC_TCP_INIT_PARAMETERS *endpoint = kplc::configure_instance(drv, setting);
    kplc::state().ex_login = static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv)->ex_login;
    kplc::proto::read::forget_tables();
    return kplc::write::start_over(endpoint);
}

// The driver always hands in its TCP parameters here (see PLC_SERIAL_INIT_PARAMETERS).
KPLC_API unsigned int zel_plc_init(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_INIT_SETTINGS *settings) {
    (void)settings;
    return kplc::write::start_over(reinterpret_cast<PLC_TCP_INIT_PARAMETERS *>(serial_settings));
}

KPLC_API unsigned int kplc_driver_info(void *drv, PLC_DRV_INFO *info) {
    (void)drv;
    info->driver_no = kDriverNo;
    info->version = kDriverVersion;
    return ER_OK;
}

KPLC_API unsigned int zel_plc_driver_info(PLC_DRV_INFO *info) {
    info->driver_no = kFrameworkDriverNo;
    info->version = kFrameworkVersion;
    return 0;
}

KPLC_API unsigned int kplc_ioctrl(void *drv, CommunicationProperty *setting, int cmd, unsigned char *input,
                                  unsigned char *output) {
    (void)drv;
    (void)setting;
    (void)input;
    if (cmd == kIoctlMultiRead) {
        // Two 32-bit integers in host order, nReg first.
        std::memcpy(output, &kMultiRead, sizeof kMultiRead);
        return ER_OK;
    }
    std::printf("[PLC]: at line %d Not currently supported \r\n", __LINE__);
    return ER_OK;
}

KPLC_API unsigned int kplc_getmessagelength(void *drv, CommunicationProperty *setting, Reg *reg, int n) {
    (void)drv;
    (void)setting;
    (void)reg;
    (void)n;
    return 0;
}

KPLC_API unsigned int kplc_slave_main(void *drv, short plc_slave_id, int *local_bit, short *local_word, int semid,
                                      CommunicationProperty *settings) {
    (void)drv;
    (void)plc_slave_id;
    (void)local_bit;
    (void)local_word;
    (void)semid;
    (void)settings;
    return 0;  // the driver has no slave mode
}

}  // extern "C"
