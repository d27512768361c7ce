// Writers of one 16-, 32- or 64-bit value into a tag addressed by its name:
// resolve the name, then one word write of the value at the resolved location.
// The panel holds the value little-endian; it travels least significant word
// first, each word high byte first.
#include <cstddef>

#include "kplc/driver.h"
#include "write/session.hpp"

namespace {

using namespace kplc::write;

// A word write is acknowledged by a reply of more than 12 bytes; the wider
// writes accept any non-empty reply. No status byte is examined.
constexpr std::size_t kWordReplyMin = 13;
constexpr std::size_t kAnyReply = 1;

unsigned write_scalar(PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings, kplc_plc_tag *list, int regid,
                      uint8_t words, std::size_t min_reply) {
    const kplc_tag_str *tag = writer_tag(list, regid);
    if (tag == nullptr || !has_value(buff)) return ER_INVALID;
    Session session(settings);
    const Resolution r = resolve_name(session, tag->name, tag->mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    // A scalar write always writes the whole tag, one element: offset and
    // count are not used, and the runtime's buffer holds the tag's value.
    const std::span<const uint8_t> value(buff->buff, 2 * std::size_t{words});
    return write_words(session, r.item, words, value, ValueOrder::PanelWords, min_reply);
}

}  // namespace

extern "C" {

KPLC_API unsigned int zel_plc_write_words(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return write_scalar(buff, settings, kplc_tag_list, regid_temp, 1, kWordReplyMin);
}

KPLC_API unsigned int zel_plc_write_dwords(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return write_scalar(buff, settings, kplc_tag_list, regid_temp, 2, kAnyReply);
}

KPLC_API unsigned int zel_plc_write_4words(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    return write_scalar(buff, settings, kplc_tag_list, regid_temp, 4, kAnyReply);
}

}  // extern "C"
