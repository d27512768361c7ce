// The runtime lays its records out with natural alignment in the order of
// their fields. These checks pin that layout for LP64 (x86-64, aarch64) and
// ILP32 (32-bit ARM): a change to a record that would move a field breaks the
// build instead of the panel.
#include <cstddef>

#include "state/process_state.hpp"
#include "kplc/records.h"
#include "kplc/tags.h"

namespace {

constexpr bool kLP64 = sizeof(void *) == 8;
constexpr std::size_t P = sizeof(void *);

static_assert(sizeof(void *) == 4 || sizeof(void *) == 8);

static_assert(offsetof(CommunicationProperty, _sizeExtra) == 2);
static_assert(offsetof(CommunicationProperty, _flag) == 4);
static_assert(offsetof(CommunicationProperty, _workMode) == 14);
static_assert(offsetof(CommunicationProperty, _baud) == 16);
static_assert(offsetof(CommunicationProperty, _datBits) == 20);
static_assert(offsetof(CommunicationProperty, _plcGlobalTimeout) == 28);
static_assert(offsetof(CommunicationProperty, _protocalTimeout1) == 30);
static_assert(offsetof(CommunicationProperty, _comInterval) == 32);
static_assert(offsetof(CommunicationProperty, _maxBlockBits) == 54);
static_assert(offsetof(CommunicationProperty, _varSlave) == 56);
static_assert(offsetof(CommunicationProperty, _varPort) == 64);
static_assert(sizeof(CommunicationProperty) == 68);

static_assert(sizeof(ex_login_t) == 50);
static_assert(offsetof(ex_login_t, user) == 2);
static_assert(offsetof(ex_login_t, password) == 26);
static_assert(offsetof(Ex_CommunicationProperty, sta_no) == 68);

static_assert(offsetof(Reg, plcNo) == 6);
static_assert(offsetof(Reg, regType) == 8);
static_assert(offsetof(Reg, addrMode) == 9);
static_assert(offsetof(Reg, regId) == 10);
static_assert(offsetof(Reg, regAddr) == 12);
static_assert(offsetof(Reg, regNums) == 16);
static_assert(offsetof(Reg, subAddr) == 20);
static_assert(offsetof(Reg, level) == 21);
static_assert(offsetof(Reg, _devIndex) == 22);
static_assert(sizeof(Reg) == 24);

static_assert(offsetof(DrvRWBuf, buff) == P);
static_assert(offsetof(DrvRWBuf, size) == 2 * P);
static_assert(offsetof(DrvRWBuf, error) == 2 * P + 4);
static_assert(sizeof(DrvRWBuf) == (kLP64 ? 24 : 16));

static_assert(sizeof(PLC_DRV_INFO) == 4);
static_assert(sizeof(Mulity_Property) == 8);

static_assert(offsetof(PLC_DRV_INIT_SETTINGS, mode) == 4);
static_assert(offsetof(PLC_DRV_INIT_SETTINGS, driver_id) == 6);
static_assert(offsetof(PLC_DRV_INIT_SETTINGS, response_timeout) == 8);
static_assert(offsetof(PLC_DRV_INIT_SETTINGS, timeout1) == 12);
static_assert(offsetof(PLC_DRV_INIT_SETTINGS, timeout2) == 16);
static_assert(sizeof(PLC_DRV_INIT_SETTINGS) == 20);
static_assert(sizeof(PLC_DRV_INIT_SETTINGS1) == 16);

static_assert(offsetof(PLC_TCP_INIT_PARAMETERS, ipaddr) == P);
static_assert(offsetof(PLC_TCP_INIT_PARAMETERS, port) == P + 4);
static_assert(offsetof(PLC_TCP_INIT_PARAMETERS, stop_bits) == P + 6);
static_assert(offsetof(PLC_TCP_INIT_PARAMETERS, mode) == P + 7);
static_assert(sizeof(PLC_TCP_INIT_PARAMETERS) == (kLP64 ? 16 : 12));

// Read through a PLC_SERIAL_INIT_PARAMETERS pointer, `baud` is the TCP record's
// `ipaddr`; the framework routines rely on that.
static_assert(offsetof(PLC_SERIAL_INIT_PARAMETERS, baud) == offsetof(PLC_TCP_INIT_PARAMETERS, ipaddr));
static_assert(offsetof(PLC_SERIAL_INIT_PARAMETERS, parity) == P + 4);
static_assert(offsetof(PLC_SERIAL_INIT_PARAMETERS, ipaddr) == P + 8);
static_assert(offsetof(PLC_SERIAL_INIT_PARAMETERS, port) == P + 12);

static_assert(offsetof(PLC_DRV_REG_ADDR, reg_type) == 2);
static_assert(offsetof(PLC_DRV_REG_ADDR, reg_id) == 4);
static_assert(offsetof(PLC_DRV_REG_ADDR, reg_addr) == 8);
static_assert(offsetof(PLC_DRV_REG_ADDR, sub_addr) == 12);
static_assert(offsetof(PLC_DRV_REG_ADDR, reserved) == 14);
static_assert(sizeof(PLC_DRV_REG_ADDR) == 16);

static_assert(offsetof(PLC_DRV_BUFF, buff) == P);

// The instance record: the settings view first, so `drv` is the view's address.
static_assert(offsetof(PLC_DRV_INIT_SETTINGS_NEW, view) == 0);
static_assert(offsetof(PLC_DRV_INIT_SETTINGS_NEW, old_serial_settings) == (kLP64 ? 24 : 20));
static_assert(offsetof(PLC_DRV_INIT_SETTINGS_NEW, ex_login) == (kLP64 ? 40 : 32));
static_assert(offsetof(PLC_DRV_INIT_SETTINGS_NEW, ex_count) == (kLP64 ? 48 : 36));

static_assert(sizeof(var_attr) == 4);
static_assert(offsetof(kplc_tag_str, name) == 2);
static_assert(offsetof(kplc_tag_str, type) == 258);
static_assert(offsetof(kplc_tag_str, bits) == 260);
static_assert(offsetof(kplc_tag_str, ar_min) == 264);
static_assert(offsetof(kplc_tag_str, byte_len) == 288);
static_assert(offsetof(kplc_tag_str, attr) == 300);
static_assert(offsetof(kplc_tag_str, var_type) == 304);
static_assert(offsetof(kplc_tag_str, address) == 305);
static_assert(offsetof(kplc_tag_str, mode_type) == 308);
static_assert(offsetof(kplc_tag_str, local_name) == 312);

}  // namespace
