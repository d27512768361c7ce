// The thirteen writers under their exported names. Called from outside, a
// writer finds its tag record as entry `regid_temp` of the table and takes
// offset and length in the records' units (elements; 32-bit units for 64-bit
// tags), as the dispatch leaves them; a missing tag, address or value fails
// with ER_INVALID before anything is sent. The dispatch itself calls the
// writers directly with the tag and the run it holds.
#include "kplc/driver.h"
#include "write/session.hpp"
#include "write/units.hpp"
#include "write/writers.hpp"

namespace wr = kplc::write;

namespace {

// The tag record and the value bytes a writer needs, or null after a "[PLC]" line.
const kplc_tag_str *tag_with_value(const kplc_plc_tag *list, int regid, const PLC_DRV_BUFF *buff) {
    const kplc_tag_str *tag = wr::writer_tag(list, regid);
    return tag != nullptr && wr::has_value(buff) ? tag : nullptr;
}

// The same for a writer that also reads the offset.
const kplc_tag_str *tag_with_run(const kplc_plc_tag *list, int regid, const PLC_DRV_REG_ADDR *reg_addr,
                                 const PLC_DRV_BUFF *buff) {
    const kplc_tag_str *tag = wr::writer_tag(list, regid);
    return tag != nullptr && reg_addr != nullptr && wr::has_value(buff) ? tag : nullptr;
}

unsigned value(PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings, kplc_plc_tag *list, int regid, uint32_t words) {
    const kplc_tag_str *tag = tag_with_value(list, regid, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_value(settings, *tag, buff->buff, words);
}

unsigned run(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings, kplc_plc_tag *list,
             int regid, uint32_t words) {
    const kplc_tag_str *tag = tag_with_run(list, regid, reg_addr, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_run(settings, *tag, wr::element_run(words, *reg_addr, *buff), buff->buff, words);
}

unsigned text(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings, kplc_plc_tag *list,
              int regid) {
    const kplc_tag_str *tag = tag_with_run(list, regid, reg_addr, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_text(settings, *tag, wr::element_run(1, *reg_addr, *buff), buff->buff);
}

}  // namespace

extern "C" {

KPLC_API unsigned int zel_plc_write_words(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return value(buff, settings, kplc_tag_list, regid_temp, 1);
}

KPLC_API unsigned int zel_plc_write_dwords(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return value(buff, settings, kplc_tag_list, regid_temp, 2);
}

KPLC_API unsigned int zel_plc_write_4words(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return value(buff, settings, kplc_tag_list, regid_temp, 4);
}

KPLC_API unsigned int zel_plc_write_array_words(KPLC_WRITER_ARGS) {
    return run(reg_addr, buff, settings, kplc_tag_list, regid_temp, 1);
}

KPLC_API unsigned int zel_plc_write_array_dwords(KPLC_WRITER_ARGS) {
    return run(reg_addr, buff, settings, kplc_tag_list, regid_temp, 2);
}

// The word count sent is four per element written, so that it always matches
// the value bytes carried (an odd count of 32-bit units would otherwise
// announce words that are not in the request).
KPLC_API unsigned int zel_plc_write_array_4words(KPLC_WRITER_ARGS) {
    return run(reg_addr, buff, settings, kplc_tag_list, regid_temp, 4);
}

KPLC_API unsigned int zel_plc_write_bits(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    const kplc_tag_str *tag = tag_with_value(kplc_tag_list, regid_temp, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_bit(settings, *tag, buff->buff);
}

KPLC_API unsigned int zel_plc_write_array_bits(KPLC_WRITER_ARGS) {
    const kplc_tag_str *tag = tag_with_run(kplc_tag_list, regid_temp, reg_addr, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_bit_run(settings, *tag, wr::element_run(1, *reg_addr, *buff), buff->buff);
}

KPLC_API unsigned int zel_plc_write_bits_struct(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff,
                                                PLC_DRV_INIT_SETTINGS *settings, unsigned char *var_buffer,
                                                kplc_plc_tag *kplc_tag_list, int regid_temp) {
    (void)reg_addr;
    const kplc_tag_str *tag = wr::writer_tag(kplc_tag_list, regid_temp);
    if (tag == nullptr || var_buffer == nullptr || !wr::has_value(buff)) return ER_INVALID;
    return wr::write_member_bit(settings, *tag, reinterpret_cast<const char *>(var_buffer), buff->buff);
}

KPLC_API unsigned int zel_plc_write_array_struct_bits(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    const kplc_tag_str *tag = tag_with_value(kplc_tag_list, regid_temp, buff);
    if (tag == nullptr) return ER_INVALID;
    return wr::write_indexed_member_bit(settings, *tag, buff->buff);
}

KPLC_API unsigned int zel_plc_write_string(KPLC_WRITER_ARGS) {
    return text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

KPLC_API unsigned int zel_plc_write_string_struct(KPLC_WRITER_ARGS) {
    return text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

KPLC_API unsigned int zel_plc_write_array_struct_string(KPLC_WRITER_ARGS) {
    return text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

}  // extern "C"
