// The single door of the write path: start the link if it is down, find the
// tag record of the write-side table (loading the tag file on first use),
// convert the runtime's byte offsets and counts into elements, and hand the
// write to the writer for the tag's type, name form, shape and device class.
#include <algorithm>
#include <array>
#include <cstdio>

#include "state/process_state.hpp"
#include "kplc/driver.h"
#include "kplc/support.h"
#include "format/device_class.hpp"
#include "format/tag.hpp"
#include "format/types.hpp"
#include "protocol/names.hpp"
#include "support/places.hpp"
#include "tags/table_memo.hpp"
#include "write/session.hpp"

namespace {

using kplc::write::has_value;

using namespace kplc::format;  // the type codes and device classes




constexpr uint32_t kMaxBoolBits = kMaxBoolRun;


// Offsets and counts arrive in bytes for 16-, 32- and 64-bit tags; the
// writers count elements (64-bit tags: 32-bit units, halved by their writer).
// BOOL offsets count bits and text offsets characters already.
void to_elements(uint8_t bits, PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff) {
    const unsigned shift = write_unit_shift(bits);
    buff->length >>= shift;
    reg_addr->reg_addr >>= shift;
}

// A single-bit write takes the lowest bit of the first value byte.
void mask_first(PLC_DRV_BUFF *buff) { buff->buff[0] &= 1u; }

bool within_bool_limit(const PLC_DRV_BUFF *buff, const char *name) {
    if (buff->length <= kMaxBoolBits) return true;
    std::printf("[PLC] BOOL write of %u bits to %.255s exceeds %u bits at line %d\r\n", buff->length, name,
                kMaxBoolBits, __LINE__);
    return false;
}

// Bit packing before a multi-bit write: one value byte per bit, byte i holding
// element i in its lowest bit, so every byte is reduced to that bit. With one
// bit this leaves the lowest bit of the first byte, the value of a single BOOL.
bool pack_bits(PLC_DRV_BUFF *buff, const char *name) {
    if (!within_bool_limit(buff, name)) return false;
    for (uint32_t i = 0; i < buff->length; ++i) buff->buff[i] &= 1u;
    return true;
}

// Per-element bit loop: each bit is written by name through the member writer,
// one element name per bit. Every element is attempted and the result of the
// last one is returned; the loop stops early only when the link is lost, since
// nothing can be sent before a new connect.
unsigned each_bit(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                  kplc_plc_tag *table, int regid, const kplc_tag_str &tag) {
    if (!within_bool_limit(buff, tag.name)) return ER_INVALID;
    const uint32_t count = buff->length;
    std::array<uint8_t, kMaxBoolBits> values{};
    std::copy_n(buff->buff, count, values.begin());
    std::array<char, sizeof tag.name> name{};
    const uint32_t first = reg_addr->reg_addr;
    // No bit asked for: nothing is written and nothing failed.
    unsigned result = ER_OK;
    for (uint32_t i = 0; i < count; ++i) {
        buff->length = 1;
        buff->buff[0] = values[i] & 1u;
        if (!kplc::proto::element_name(name, tag, tag.attr, first + i)) {
            std::printf("[PLC] element %u of %.255s has no name within 255 characters at line %d\r\n", first + i,
                        tag.name, __LINE__);
            result = ER_INVALID;
            continue;
        }
        result = zel_plc_write_bits_struct(reg_addr, buff, settings, reinterpret_cast<unsigned char *>(name.data()),
                                           table, regid);
        if (kplc::state().init == 0) break;
    }
    return result;
}

unsigned write_bool(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                    kplc_plc_tag *table, int regid, kplc_tag_str &tag) {
    if (!has_value(buff)) return ER_INVALID;
    const bool single = tag.attr == NORMAL;
    switch (tag.var_type) {
        case kPlainName:
            if (single) {
                mask_first(buff);
                return zel_plc_write_bits(reg_addr, buff, settings, table, regid);
            }
            if (kplc::format::written_per_element(tag.address)) return each_bit(reg_addr, buff, settings, table, regid, tag);
            if (!pack_bits(buff, tag.name)) return ER_INVALID;
            return zel_plc_write_array_bits(reg_addr, buff, settings, table, regid);
        case kMember:
            if (single) {
                mask_first(buff);
                const unsigned direct = zel_plc_write_bits(reg_addr, buff, settings, table, regid);
                if (direct == ER_OK) return direct;
                // Some members are only reachable by a read-modify-write of the
                // word that holds them. (After a lost link the member writer
                // sends nothing and fails too.)
                return zel_plc_write_bits_struct(reg_addr, buff, settings,
                                                 reinterpret_cast<unsigned char *>(tag.name), table, regid);
            }
            // A member array is written by name, one element name per bit.
            return each_bit(reg_addr, buff, settings, table, regid, tag);
        case kIndexedMember:
            if (single) {
                mask_first(buff);
                if (tag.address == kNoDevice)
                    return zel_plc_write_array_struct_bits(reg_addr, buff, settings, table, regid);
                return zel_plc_write_bits(reg_addr, buff, settings, table, regid);
            }
            if (tag.address == kNoDevice) return each_bit(reg_addr, buff, settings, table, regid, tag);
            if (!pack_bits(buff, tag.name)) return ER_INVALID;
            return zel_plc_write_array_bits(reg_addr, buff, settings, table, regid);
        default: return KPLC_ER_NO_WRITER;
    }
}

unsigned write_tag(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                   kplc_plc_tag *table, int regid, kplc_tag_str &tag) {
    if (tag.type == kBool) return write_bool(reg_addr, buff, settings, table, regid, tag);
    if (tag.var_type < kPlainName || tag.var_type > kIndexedMember) return KPLC_ER_NO_WRITER;
    const bool single = tag.attr == NORMAL;
    switch (tag.type) {
        case kInt:
        case kUint:
            if (!single) return zel_plc_write_array_words(reg_addr, buff, settings, table, regid);
            return zel_plc_write_words(reg_addr, buff, settings, table, regid);
        case kDint:
        case kUdint:
        case kReal:
            if (!single) return zel_plc_write_array_dwords(reg_addr, buff, settings, table, regid);
            return zel_plc_write_dwords(reg_addr, buff, settings, table, regid);
        case kLreal:
        case kLtime:
            if (!single) return zel_plc_write_array_4words(reg_addr, buff, settings, table, regid);
            return zel_plc_write_4words(reg_addr, buff, settings, table, regid);
        case kString:
            if (tag.var_type == kPlainName) return zel_plc_write_string(reg_addr, buff, settings, table, regid);
            if (tag.var_type == kMember) return zel_plc_write_string_struct(reg_addr, buff, settings, table, regid);
            return zel_plc_write_array_struct_string(reg_addr, buff, settings, table, regid);
        default: return KPLC_ER_NO_WRITER;
    }
}

// The write-side table of the tag file, loaded and registered on first use.
kplc_plc_tag *write_table(char *csv_name) {
    auto &st = kplc::state();
    if (kplc_plc_tag *table = kplc_get_tagtable(&st.g_plc_tags, csv_name)) return table;
    kplc_tag_str *records = nullptr;
    const u32 count = kplc_build_tagtable(&records, csv_name);
    if (count == 0) {
        std::puts("build tag table failed!\r");
        return nullptr;
    }
    if (kplc_add_tagtable(&st.g_plc_tags, csv_name, records, count) < 0) {
        std::puts("kplc_add_tagtable failed!\r");
        return nullptr;
    }
    return kplc_get_tagtable(&st.g_plc_tags, csv_name);
}

}  // namespace

extern "C" {

KPLC_API unsigned int zel_plc_write(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                                    int devIndex) {
    if (reg_addr == nullptr || buff == nullptr || settings == nullptr) {
        std::printf("[PLC] write without address, value or settings at line %d\r\n", __LINE__);
        return ER_INVALID;
    }
    auto &st = kplc::state();
    std::array<char, 50> csv_name{};

    // The write path only connects; the program catalogue is loaded by the
    // write entry when it finds the link down after the write.
    if (st.init == 0) {
        if (XPLC_init(settings) != 0) {
            std::puts("zel_plc_read init fail\r");
            return ER_TIMEOUT;
        }
        st.init = 1;
    }
    if (settings->timeout2 != 0 && settings->timeout2 != 3) zel_sleep_ms(settings->timeout2);

    const uint32_t regid = reg_addr->reg_id - 1;  // reg_id 0 wraps and fails the range check
    auto *tcp = reinterpret_cast<PLC_SERIAL_INIT_PARAMETERS *>(st.tcp_settings);
    // The table of the last write, found again without forming its file name;
    // the name is formed when the table must be looked up or loaded, or reported.
    kplc::tags::TableMemo &memo = kplc::state().write_table;
    const auto address = static_cast<uint32_t>(st.tcp_settings != nullptr ? st.tcp_settings->ipaddr : 0);
    kplc_plc_tag *table = st.tcp_settings != nullptr ? memo.find(st.g_plc_tags, address, devIndex) : nullptr;
    if (table == nullptr) {
        kplc_get_csv_name1(tcp, reg_addr, csv_name.data(), devIndex);
        table = write_table(csv_name.data());
        if (table == nullptr) return ER_INVALID;
        if (st.tcp_settings != nullptr) memo.remember(st.g_plc_tags, address, devIndex, table);
    }
    if (regid >= table->id_max) {
        if (csv_name[0] == '\0') kplc_get_csv_name1(tcp, reg_addr, csv_name.data(), devIndex);
        std::printf("[PLC] ");
        // Printed unsigned: reg_id 0 shows as 4294967295, the index it wrapped to.
        std::printf("tag id %u is not exist in this tag list %s", regid, csv_name.data());
        std::printf(", at line: %d\r\n", kplc::place::kUnknownWriteTag);
        return ER_INVALID;
    }
    kplc_tag_str &tag = table->tag_table[regid];
    // Converted before the type is examined, so also for types then refused.
    to_elements(tag.bits, reg_addr, buff);
    return write_tag(reg_addr, buff, settings, table, static_cast<int>(regid), tag);
}

}  // extern "C"
