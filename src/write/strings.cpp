// Writers of text into a STRING tag, an element of a STRING array or a STRING
// member, starting at any character. The name resolved points at the first
// character to write: the element's index suffix followed by the character
// position as a last bracket ("Msg[#3]", "Names[#2][#5]"). The text then goes
// out unchanged in one word write, two characters per word, the earlier
// character in the high byte.
#include <algorithm>
#include <array>
#include <cstdio>

#include "format/tag.hpp"
#include "kplc/driver.h"
#include "protocol/names.hpp"
#include "write/session.hpp"

namespace {

using namespace kplc::write;

using kplc::format::kMaxTextBytes;

unsigned write_text(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                    kplc_plc_tag *list, int regid) {
    const kplc_tag_str *tag = writer_tag(list, regid);
    if (tag == nullptr || reg_addr == nullptr || !has_value(buff)) return ER_INVALID;
    const uint32_t n = buff->length;
    if (n > tag->byte_len) {
        std::puts("[PLC]STRING not support mulity write!!!\r");
        return ER_INVALID;
    }
    // byte_len counts the characters of one element plus its terminator; with
    // no character the tag cannot be divided into elements.
    if (tag->byte_len < 2) {
        std::printf("[PLC] string tag %.255s has no characters (byte length %u) at line %d\r\n", tag->name,
                    tag->byte_len, __LINE__);
        return ER_INVALID;
    }
    // An odd text gets a zero fill byte to complete its last word.
    const uint32_t padded = n + (n & 1u);
    // An empty text still goes out: a word write of no words, whose result
    // follows the reply like any other.
    if (padded > kMaxTextBytes) {
        std::printf("[PLC] string write of %u bytes to %.255s exceeds %u bytes at line %d\r\n", n, tag->name,
                    kMaxTextBytes, __LINE__);
        return ER_INVALID;
    }

    // The writer takes every tag it is handed for a one-byte-terminated string.
    const uint32_t element_size = tag->byte_len - kplc::format::terminator_bytes(kplc::format::kString);
    const uint32_t offset = reg_addr->reg_addr;
    const uint32_t element = offset / element_size;
    // A single string (no upper bound set, e.g. declared [0..0]) is named by
    // the character offset itself; an array element by the character in it.
    const bool single = kplc::format::string_dimensions(*tag) == 0;
    const uint32_t character = single ? offset : offset % element_size;
    std::array<char, sizeof tag->name> name{};
    if (!kplc::proto::string_element_name(name, *tag, element, character)) {
        std::printf("[PLC] character %u of %.255s has no name within 255 characters at line %d\r\n", offset,
                    tag->name, __LINE__);
        return ER_INVALID;
    }

    Session session(settings);
    const Resolution r = resolve_name(session, name.data(), tag->mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    // The fill byte is added in a copy: the runtime's buffer is only known to
    // hold n bytes, so nothing is written behind them.
    std::array<uint8_t, kMaxTextBytes> text{};
    std::copy_n(buff->buff, n, text.begin());
    const std::span<const uint8_t> value(text.data(), padded);
    return write_words(session, r.item, static_cast<uint8_t>(padded / 2), value, ValueOrder::Wire, 1);
}

}  // namespace

// The three name forms (plain, structure member, member through an index)
// are written the same way; the name of the tag record carries the form.
extern "C" {

KPLC_API unsigned int zel_plc_write_string(KPLC_WRITER_ARGS) {
    return write_text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

KPLC_API unsigned int zel_plc_write_string_struct(KPLC_WRITER_ARGS) {
    return write_text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

KPLC_API unsigned int zel_plc_write_array_struct_string(KPLC_WRITER_ARGS) {
    return write_text(reg_addr, buff, settings, kplc_tag_list, regid_temp);
}

}  // extern "C"
