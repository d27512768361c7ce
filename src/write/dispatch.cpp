// The single door of the write path: start the link if it is down, find the
// tag record of the write-side table (loading the tag file on first use),
// convert the runtime's byte offsets and counts into elements, and hand the
// write to the writer for the tag's type, name form, shape and device class.
#include "write/dispatch.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

#include "kplc/driver.h"
#include "format/device_class.hpp"
#include "format/tag.hpp"
#include "format/types.hpp"
#include "protocol/link.hpp"
#include "protocol/names.hpp"
#include "support/places.hpp"
#include "support/utilities.hpp"
#include "write/session.hpp"
#include "write/tables.hpp"
#include "write/units.hpp"
#include "write/writers.hpp"

namespace kplc::write {
namespace {

using namespace kplc::format;  // the type codes, name classes and device classes

// A multi-bit write carries one value byte per bit and is taken through a
// copy of that many bytes; longer ones are refused rather than cut.
constexpr uint32_t kMaxBoolBits = kMaxBoolRun;

// One write as it is handed to a writer: the caller's records (their offset
// and length already in the records' units, and changed further on the BOOL
// paths, as the caller sees afterwards) and the tag record.
struct Write {
    PLC_DRV_REG_ADDR &reg_addr;
    PLC_DRV_BUFF &buff;
    PLC_DRV_INIT_SETTINGS *settings;
    const kplc_tag_str &tag;

    [[nodiscard]] ElementRun run(uint32_t words) const noexcept { return element_run(words, reg_addr, buff); }
};

// A single-bit write takes the lowest bit of the first value byte.
void mask_first(PLC_DRV_BUFF &buff) { buff.buff[0] &= 1u; }

bool within_bool_limit(const PLC_DRV_BUFF &buff, const char *name) {
    if (buff.length <= kMaxBoolBits) return true;
    std::printf("[PLC] BOOL write of %u bits to %.255s exceeds %u bits at line %d\r\n", buff.length, name,
                kMaxBoolBits, __LINE__);
    return false;
}

// Bit packing before a multi-bit write: one value byte per bit, byte i holding
// element i in its lowest bit, so every byte is reduced to that bit. With one
// bit this leaves the lowest bit of the first byte, the value of a single BOOL.
bool pack_bits(PLC_DRV_BUFF &buff, const char *name) {
    if (!within_bool_limit(buff, name)) return false;
    for (uint32_t i = 0; i < buff.length; ++i) buff.buff[i] &= 1u;
    return true;
}

// Per-element bit loop: each bit is written by name through the member writer,
// one element name per bit. Every element is attempted and the result of the
// last one is returned; the loop stops early only when the link is lost, since
// nothing can be sent before a new connect.
unsigned each_bit(const Write &w) {
    const kplc_tag_str &tag = w.tag;
    if (!within_bool_limit(w.buff, tag.name)) return ER_INVALID;
    const uint32_t count = w.buff.length;
    std::array<uint8_t, kMaxBoolBits> values{};
    std::copy_n(w.buff.buff, count, values.begin());
    std::array<char, sizeof tag.name> name{};
    const uint32_t first = w.reg_addr.reg_addr;
    // No bit asked for: nothing is written and nothing failed.
    unsigned result = ER_OK;
    for (uint32_t i = 0; i < count; ++i) {
        w.buff.length = 1;
        w.buff.buff[0] = values[i] & 1u;
        if (!proto::element_name(name, tag, tag.attr, first + i)) {
            std::printf("[PLC] element %u of %.255s has no name within 255 characters at line %d\r\n", first + i,
                        tag.name, __LINE__);
            result = ER_INVALID;
            continue;
        }
        result = write_member_bit(w.settings, tag, name.data(), w.buff.buff);
        if (!link::up()) break;
    }
    return result;
}

unsigned write_bool(const Write &w) {
    const kplc_tag_str &tag = w.tag;
    PLC_DRV_BUFF &buff = w.buff;
    if (!has_value(&buff)) return ER_INVALID;
    const bool single = tag.attr == NORMAL;
    switch (tag.var_type) {
        case kPlainName:
            if (single) {
                mask_first(buff);
                return write_bit(w.settings, tag, buff.buff);
            }
            if (written_per_element(tag.address)) return each_bit(w);
            if (!pack_bits(buff, tag.name)) return ER_INVALID;
            return write_bit_run(w.settings, tag, w.run(1), buff.buff);
        case kMember:
            if (single) {
                mask_first(buff);
                const unsigned direct = write_bit(w.settings, tag, buff.buff);
                if (direct == ER_OK) return direct;
                // Some members are only reachable by a read-modify-write of the
                // word that holds them. (After a lost link the member writer
                // sends nothing and fails too.)
                return write_member_bit(w.settings, tag, tag.name, buff.buff);
            }
            // A member array is written by name, one element name per bit.
            return each_bit(w);
        case kIndexedMember:
            if (single) {
                mask_first(buff);
                if (tag.address == kNoDevice) return write_indexed_member_bit(w.settings, tag, buff.buff);
                return write_bit(w.settings, tag, buff.buff);
            }
            if (tag.address == kNoDevice) return each_bit(w);
            if (!pack_bits(buff, tag.name)) return ER_INVALID;
            return write_bit_run(w.settings, tag, w.run(1), buff.buff);
        default: return KPLC_ER_NO_WRITER;
    }
}

// A 16-, 32- or 64-bit tag: the whole tag, or a run of its elements.
unsigned write_number(const Write &w) {
    if (!has_value(&w.buff)) return ER_INVALID;
    const uint32_t words = words_per_element(w.tag.bits);
    if (w.tag.attr != NORMAL) return write_run(w.settings, w.tag, w.run(words), w.buff.buff, words);
    return write_value(w.settings, w.tag, w.buff.buff, words);
}

unsigned write_tag(const Write &w) {
    const kplc_tag_str &tag = w.tag;
    if (tag.type == kBool) return write_bool(w);
    if (tag.var_type < kPlainName || tag.var_type > kIndexedMember) return KPLC_ER_NO_WRITER;
    switch (tag.type) {
        case kInt:
        case kUint:
        case kDint:
        case kUdint:
        case kReal:
        case kLreal:
        case kLtime: return write_number(w);
        case kString:
            // Plain, member and indexed member names are written alike.
            if (!has_value(&w.buff)) return ER_INVALID;
            return write_text(w.settings, tag, w.run(1), w.buff.buff);
        default: return KPLC_ER_NO_WRITER;
    }
}

}  // namespace

unsigned dispatch(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                  int devIndex) noexcept {
    if (reg_addr == nullptr || buff == nullptr || settings == nullptr) {
        std::printf("[PLC] write without address, value or settings at line %d\r\n", __LINE__);
        return ER_INVALID;
    }
    // The write path only connects; the program catalogue is loaded by the
    // write entry when it finds the link down after the write.
    const unsigned connected = link::ensure_connected(settings);
    if (connected != ER_OK) return connected;
    if (settings->timeout2 != 0 && settings->timeout2 != 3) support::sleep_ms(settings->timeout2);

    const uint32_t regid = reg_addr->reg_id - 1;  // reg_id 0 wraps and fails the range check
    FileName csv_name{};
    const kplc_plc_tag *table = table_of(devIndex, csv_name);
    if (table == nullptr) return ER_INVALID;
    if (regid >= table->id_max) {
        if (csv_name[0] == '\0') form_file_name(devIndex, csv_name);
        std::printf("[PLC] ");
        // Printed unsigned: reg_id 0 shows as 4294967295, the index it wrapped to.
        std::printf("tag id %u is not exist in this tag list %s", regid, csv_name.data());
        std::printf(", at line: %d\r\n", kplc::place::kUnknownWriteTag);
        return ER_INVALID;
    }
    const kplc_tag_str &tag = table->tag_table[regid];
    // Converted before the type is examined, so also for types then refused.
    to_record_units(tag.bits, *reg_addr, *buff);
    return write_tag(Write{*reg_addr, *buff, settings, tag});
}

}  // namespace kplc::write
