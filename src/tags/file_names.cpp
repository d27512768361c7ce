// Names of the tag definition files: one file per PLC address and device
// index, "./driver/PLC<address as 8 hex digits>_<device index>.csv".
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "format/tag_limits.hpp"
#include "kplc/tags.h"

namespace {

using kplc::format::form_tag_file_name;

// The write side is handed the TCP parameters under the framework's serial
// record type; what that type calls `baud` is the address at the same place.
static_assert(offsetof(PLC_SERIAL_INIT_PARAMETERS, baud) == offsetof(PLC_TCP_INIT_PARAMETERS, ipaddr));

}  // namespace

extern "C" {

KPLC_API void kplc_get_csv_name(CommunicationProperty *setting, Reg *reg, char *csv_name) {
    if (csv_name == nullptr) return;
    if (setting == nullptr || reg == nullptr) {
        csv_name[0] = '\0';  // no file can be named; an empty name opens nothing
        return;
    }
    // For this Ethernet driver the port record's _baud carries the PLC's address.
    form_tag_file_name(csv_name, setting->_baud, reg->_devIndex);
}

KPLC_API void kplc_get_csv_name1(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_REG_ADDR * /*reg_addr*/,
                                 char *csv_name, int devIndex) {
    if (csv_name == nullptr) return;
    if (serial_settings == nullptr) {
        csv_name[0] = '\0';
        return;
    }
    const auto *tcp = reinterpret_cast<const PLC_TCP_INIT_PARAMETERS *>(serial_settings);
    form_tag_file_name(csv_name, static_cast<uint32_t>(tcp->ipaddr), devIndex);
}

}  // extern "C"
