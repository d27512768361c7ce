// The entry points the panel runtime finds by name, and the framework's init.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "format/tag_limits.hpp"
#include "support/instance.hpp"
#include "state/process_state.hpp"
#include "kplc/driver.h"

namespace {

using kplc::format::kIoctlMultiRead;
// Multi-read properties announced to the runtime: 8 requests per batch, 16 packages.
constexpr Mulity_Property kMultiRead{8, 16};

constexpr uint16_t kDriverNo = 714;
constexpr uint16_t kDriverVersion = 10;
constexpr uint16_t kFrameworkDriverNo = 722;
constexpr uint16_t kFrameworkVersion = 1;

// Every extra record behind CommunicationProperty is 50 bytes long.
constexpr unsigned kExtraRecordSize = 50;

}  // namespace

extern "C" {

KPLC_API void *kplc_create(void) {
    // Cleared, so that nothing the runtime does not configure (the local
    // interface selector above all) holds garbage: selector 0 means no binding.
    void *record = std::calloc(1, sizeof(PLC_DRV_INIT_SETTINGS_NEW));
    if (record == nullptr) std::printf("%s malloc error\r\n", "kplc_create");
    return record;
}

KPLC_API unsigned int kplc_init(void *drv, CommunicationProperty *setting) {
    auto &st = kplc::state();
    auto *rec = static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv);
    PLC_TCP_INIT_PARAMETERS &tcp = rec->old_serial_settings;

    // The extra records start right after _varPort, that is at the end of the record.
    rec->ex_login = reinterpret_cast<ex_login_t *>(reinterpret_cast<unsigned char *>(setting) +
                                                       sizeof(CommunicationProperty));
    rec->ex_count = static_cast<uint8_t>(setting->_sizeExtra / kExtraRecordSize);
    st.ex_login = rec->ex_login;
    st.tcp_settings = &tcp;

    tcp.com_device = nullptr;
    rec->view.settings.timeout2 = 0;  // what every lower layer reads as timeout2
    tcp.ipaddr = static_cast<int>(setting->_baud);
    tcp.mode = setting->_workMode != 0 ? 0 : 'U';
    tcp.port = static_cast<int16_t>(setting->_datBits);
    rec->view.old_init_settings.response_timeout = setting->_plcGlobalTimeout;
    rec->view.old_init_settings.timeout1 = setting->_protocalTimeout1;

    kplc_init_tag(&st.g_kplc_tags);
    return zel_plc_init(reinterpret_cast<PLC_SERIAL_INIT_PARAMETERS *>(&tcp), kplc::settings_of(drv));
}

KPLC_API unsigned int zel_plc_init(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_INIT_SETTINGS *settings) {
    (void)settings;
    auto &st = kplc::state();
    st.write_sid = 0;
    st.init = 0;
    // The driver always hands in its TCP parameters here (see PLC_SERIAL_INIT_PARAMETERS).
    st.tcp_settings = reinterpret_cast<PLC_TCP_INIT_PARAMETERS *>(serial_settings);
    kplc_init_tag(&st.g_plc_tags);
    return 0;
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
