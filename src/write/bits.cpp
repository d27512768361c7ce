// Writers of single BOOLs. A BOOL cannot be written as a whole word without
// disturbing its neighbours, so after resolving the name the bit is changed in
// one of three ways:
//  - set bit / reset bit commands on the PLC's bit device areas (LR, MR, DR/R,
//    B, CR), addressed by the device class and the last two location bytes;
//  - a word-area bit write carrying the new value and a 16-bit mask;
//  - read-modify-write: read the word holding the bit, change the bit, write
//    the word back.
// The value of a BOOL is the lowest bit of its value byte.
#include <array>
#include <cstdio>
#include <optional>

#include "format/device_class.hpp"
#include "format/wire.hpp"
#include "kplc/driver.h"
#include "kplc/support.h"
#include "protocol/names.hpp"
#include "write/session.hpp"

namespace {

using namespace kplc::write;
using kplc::proto::byte_at;
using kplc::proto::ResolveItem;

// Where the resolve response carries the bit number of a BOOL (first item).
constexpr std::size_t kBitNumberOffset = kplc::wire::kItemBitNumber;
constexpr std::size_t kBitNumberHighOffset = kplc::wire::kItemBitNumberHigh;
// The read-by-location answer carries the word at its data offset, high byte first.
constexpr std::size_t kWordOffset = kplc::wire::kReplyDataOffset;
// The low byte of a reply's status is the status of a bit write: 0 accepted.
constexpr std::size_t kStatusOffset = kplc::wire::kStatusLowOffset;


// A bit number outside 0-15 points outside the 16-bit word; writing with it
// would change some other bit or none, so the write is refused.
std::optional<uint8_t> usable_bit(unsigned bit, const char *name) {
    if (bit <= kMaxBitNumber) return static_cast<uint8_t>(bit);
    std::printf("[PLC] bit number %u of %.255s is outside the word, not written at line %d\r\n", bit, name,
                __LINE__);
    return std::nullopt;
}

// The bit number as one byte of the resolve response.
std::optional<uint8_t> bit_number_at30(const Session &session, const char *name) {
    const auto bit = byte_at(session.response(), kBitNumberOffset);
    if (!bit) {
        std::printf("[PLC] resolve response for %.255s carries no bit number at line %d\r\n", name, __LINE__);
        return std::nullopt;
    }
    return usable_bit(*bit, name);
}

// Sends one built bit request; the link-level outcome only.
bool sent(Session &session, std::size_t length, const char *name) {
    switch (session.send(length)) {
        case Sent::Refused:
            std::printf("[PLC] bit write of %.255s could not be built at line %d\r\n", name, __LINE__);
            return false;
        case Sent::LinkLost: return false;
        case Sent::Answered: return true;
    }
    return false;
}

std::size_t build_direct(Session &session, const ResolveItem &target, uint8_t device_class, bool value,
                         uint8_t bit) {
    if (kplc::format::written_by_set_reset(device_class))
        return build_set_reset(session.request(), session.sequence(), target, device_class, value);
    return build_bit_write(session.request(), session.sequence(), target, value, bit);
}

// Reads the word holding bit `bit`, sets or clears the bit and writes the word
// back. The previous state of the bit is left in the first value byte.
unsigned read_modify_write(Session &session, const ResolveItem &target, uint8_t bit, PLC_DRV_BUFF *buff,
                           const char *name) {
    if (!sent(session, build_read_word(session.request(), session.sequence(), target), name)) return ER_INVALID;
    if (session.response().empty()) return ER_INVALID;
    const auto high = byte_at(session.response(), kWordOffset);
    const auto low = byte_at(session.response(), kWordOffset + 1);
    if (!high || !low) {
        std::printf("[PLC] word holding %.255s not received (%zu bytes) at line %d\r\n", name,
                    session.response().size(), __LINE__);
        return ER_INVALID;
    }
    char digits[5];
    std::snprintf(digits, sizeof digits, "%02x%02x", *high, *low);
    long word = hexToDec(digits, 4);
    const int weight = mathN(1, bit);
    const bool wanted = bit_value(buff->buff[0]);
    // The word as the panel would hold it, low byte first; its bit `bit` is
    // copied into the first value byte. One bit only: a structure member BOOL
    // is one bit, and more would read past the two bytes.
    const std::array<uint8_t, 2> scratch{static_cast<uint8_t>(word & 0xFF), static_cast<uint8_t>(word >> 8 & 0xFF)};
    BatchReadWord(scratch.data(), buff->buff, bit, 1);
    const bool current = bit_value(buff->buff[0]);
    if (wanted && !current) word += weight;
    if (!wanted && current) word -= weight;
    const std::array<uint8_t, 2> wire{static_cast<uint8_t>(word >> 8 & 0xFF), static_cast<uint8_t>(word & 0xFF)};
    return write_words(session, target, 1, wire, ValueOrder::Wire, 1);
}

}  // namespace

extern "C" {

KPLC_API unsigned int zel_plc_write_bits(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    const kplc_tag_str *tag = writer_tag(kplc_tag_list, regid_temp);
    if (tag == nullptr || !has_value(buff)) return ER_INVALID;
    Session session(settings);
    const Resolution r = resolve_name(session, tag->name, tag->mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    uint8_t bit = 0;
    if (!kplc::format::written_by_set_reset(tag->address)) {
        const auto b = bit_number_at30(session, tag->name);
        if (!b) return ER_INVALID;
        bit = *b;
    }
    if (!sent(session, build_direct(session, r.item, tag->address, bit_value(buff->buff[0]), bit), tag->name))
        return ER_INVALID;
    // The one writer that checks the PLC's status byte.
    const auto status = byte_at(session.response(), kStatusOffset);
    return status && *status == 0 ? ER_OK : ER_INVALID;
}

// Element i of the run takes value byte i and, on word areas, the mask bit of
// its own offset (e0 + i) mod 16: one value byte per bit, the convention of
// every BOOL write. Elements whose name does not resolve are skipped; the
// replies to the bit writes are not examined.
KPLC_API unsigned int zel_plc_write_array_bits(KPLC_WRITER_ARGS) {
    const kplc_tag_str *tag = writer_tag(kplc_tag_list, regid_temp);
    if (tag == nullptr || reg_addr == nullptr || !has_value(buff)) return ER_INVALID;
    Session session(settings);
    std::array<char, sizeof tag->name> name{};
    const uint32_t first = reg_addr->reg_addr;
    for (uint32_t i = 0; i < buff->length; ++i) {
        const uint32_t element = first + i;
        if (!kplc::proto::element_name(name, *tag, tag->attr, element)) {
            std::printf("[PLC] element %u of %.255s has no name within 255 characters at line %d\r\n", element,
                        tag->name, __LINE__);
            return ER_INVALID;
        }
        const Resolution r = resolve_name(session, name.data(), tag->mode_type);
        if (r.kind == Resolution::Failed) return ER_INVALID;
        if (r.kind == Resolution::NoItem) continue;
        const auto bit = static_cast<uint8_t>(element % 16);
        if (!sent(session, build_direct(session, r.item, tag->address, bit_value(buff->buff[i]), bit), name.data()))
            return ER_INVALID;
    }
    return ER_OK;
}

KPLC_API unsigned int zel_plc_write_bits_struct(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff,
                                                PLC_DRV_INIT_SETTINGS *settings, unsigned char *var_buffer,
                                                kplc_plc_tag *kplc_tag_list, int regid_temp) {
    (void)reg_addr;
    const kplc_tag_str *tag = writer_tag(kplc_tag_list, regid_temp);
    if (tag == nullptr || var_buffer == nullptr || !has_value(buff)) return ER_INVALID;
    const auto *name = reinterpret_cast<const char *>(var_buffer);
    Session session(settings);
    // Scope and device class come from the tag record, not from the name.
    const Resolution r = resolve_name(session, name, tag->mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    if (kplc::format::written_by_set_reset(tag->address)) {
        const std::size_t length =
            build_set_reset(session.request(), session.sequence(), r.item, tag->address, bit_value(buff->buff[0]));
        if (!sent(session, length, name)) return ER_INVALID;
        return session.response().empty() ? ER_INVALID : ER_OK;
    }
    const auto bit = bit_number_at30(session, name);
    if (!bit) return ER_INVALID;
    return read_modify_write(session, r.item, *bit, buff, name);
}

// A BOOL member reached through an index, without a device area: always a
// read-modify-write; its bit number is the 16-bit number at response 29-30.
KPLC_API unsigned int zel_plc_write_array_struct_bits(KPLC_WRITER_ARGS) {
    (void)reg_addr;
    const kplc_tag_str *tag = writer_tag(kplc_tag_list, regid_temp);
    if (tag == nullptr || !has_value(buff)) return ER_INVALID;
    Session session(settings);
    const Resolution r = resolve_name(session, tag->name, tag->mode_type);
    if (r.kind != Resolution::Item) return ER_INVALID;
    const auto high = byte_at(session.response(), kBitNumberHighOffset);
    const auto low = byte_at(session.response(), kBitNumberOffset);
    if (!high || !low) {
        std::printf("[PLC] resolve response for %.255s carries no bit number at line %d\r\n", tag->name, __LINE__);
        return ER_INVALID;
    }
    char digits[5];
    std::snprintf(digits, sizeof digits, "%02x%02x", *high, *low);
    const auto bit = usable_bit(static_cast<unsigned>(hexToDec(digits, 4)), tag->name);
    if (!bit) return ER_INVALID;
    return read_modify_write(session, r.item, *bit, buff, tag->name);
}

}  // extern "C"
