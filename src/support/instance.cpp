#include "support/instance.hpp"

#include <cstdio>
#include <cstdlib>

namespace kplc {
namespace {

// Every extra record behind CommunicationProperty is 50 bytes long.
constexpr unsigned kExtraRecordSize = 50;

}  // namespace

void *create_instance() noexcept {
    // Cleared, so that nothing the runtime does not configure (the local
    // interface selector above all) holds garbage: selector 0 means no binding.
    void *record = std::calloc(1, sizeof(PLC_DRV_INIT_SETTINGS_NEW));
    if (record == nullptr) std::printf("%s malloc error\r\n", "kplc_create");
    return record;
}

PLC_TCP_INIT_PARAMETERS *configure_instance(void *drv, CommunicationProperty *setting) noexcept {
    auto *rec = static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv);
    PLC_TCP_INIT_PARAMETERS &tcp = rec->old_serial_settings;

    // The extra records start right after _varPort, that is at the end of the record.
    rec->ex_login = reinterpret_cast<ex_login_t *>(reinterpret_cast<unsigned char *>(setting) +
                                                   sizeof(CommunicationProperty));
    rec->ex_count = static_cast<uint8_t>(setting->_sizeExtra / kExtraRecordSize);

    tcp.com_device = nullptr;
    rec->view.settings.timeout2 = 0;  // what every lower layer reads as timeout2
    tcp.ipaddr = static_cast<int>(setting->_baud);
    tcp.mode = setting->_workMode != 0 ? 0 : 'U';
    tcp.port = static_cast<int16_t>(setting->_datBits);
    rec->view.old_init_settings.response_timeout = setting->_plcGlobalTimeout;
    rec->view.old_init_settings.timeout1 = setting->_protocalTimeout1;
    return &tcp;
}

}  // namespace kplc
