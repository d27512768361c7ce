// UTF-8 to 16-bit code units for outgoing names, big-endian UTF-16 to UTF-8
// for the names in the PLC's program catalogue.
#include "support/text_encoding.hpp"

#include <array>

namespace kplc {

namespace {

struct LeadForm {
    unsigned char first;  // smallest lead byte of this length
    int length;           // bytes in the sequence
    uint32_t mask;        // bits of the lead that carry value
};

// Tested from the top down, so 0xFE and 0xFF count as six-byte leads and a
// stray continuation byte (0x80-0xBF) falls through to the one-byte form.
constexpr std::array<LeadForm, 5> kLeadForms{{
    {0xFC, 6, 0x01},
    {0xF8, 5, 0x03},
    {0xF0, 4, 0x07},
    {0xE0, 3, 0x0F},
    {0xC0, 2, 0x1F},
}};

}  // namespace

int utf8_decode_one(const unsigned char *in, uint32_t &value) noexcept {
    const unsigned char lead = in[0];
    for (const LeadForm &form : kLeadForms) {
        if (lead < form.first) continue;
        uint32_t v = lead & form.mask;
        for (int i = 1; i < form.length; ++i) {
            // The terminator inside a sequence: the text ends in the middle of
            // a character. Stop here rather than read the bytes behind it.
            if (in[i] == 0) return 0;
            v = (v << 6) | (in[i] & 0x3Fu);
        }
        value = v;
        return form.length;
    }
    // 0x00-0xBF: the byte is the value. Over-long forms and bare continuation
    // bytes are accepted as they stand; the PLC decides what a name means.
    value = lead;
    return 1;
}

std::size_t utf16be_to_utf8(std::span<const uint8_t> in, std::span<char> out) noexcept {
    if (out.empty()) return 0;
    std::size_t pos = 0;
    // One unit at a time: no working array, whatever the input length.
    for (std::size_t i = 0; i + 1 < in.size(); i += 2) {
        const auto unit = static_cast<uint16_t>((in[i] << 8) | in[i + 1]);
        const std::size_t need = utf8_length_of_unit(unit);
        // Room for this character and the terminator, or stop at the boundary.
        if (need + 1 > out.size() - pos) break;
        if (need == 1) {
            out[pos++] = static_cast<char>(unit);
        } else if (need == 2) {
            out[pos++] = static_cast<char>(0xC0 | (unit >> 6));
            out[pos++] = static_cast<char>(0x80 | (unit & 0x3F));
        } else {
            // Surrogate units land here too, each encoded by itself.
            out[pos++] = static_cast<char>(0xE0 | (unit >> 12));
            out[pos++] = static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
            out[pos++] = static_cast<char>(0x80 | (unit & 0x3F));
        }
    }
    out[pos] = '\0';
    return pos;
}

int utf8_char_value(const unsigned char *ch, int *unicode) noexcept {
    if (ch == nullptr || unicode == nullptr) return 0;
    uint32_t value = 0;
    const int length = utf8_decode_one(ch, value);
    // A six-byte form carries at most 31 bits, so the value fits an int.
    if (length > 0) *unicode = static_cast<int>(value);
    return length;
}

int utf8_to_units(const unsigned char *utf8_str, unsigned short *unicode_str, int unicode_str_size) noexcept {
    if (utf8_str == nullptr || unicode_str == nullptr) return 0;
    int count = 0;
    unsigned short *out = unicode_str;
    const unsigned char *in = utf8_str;
    while (*in != 0) {
        uint32_t value = 0;
        const int length = utf8_decode_one(in, value);
        // A sequence cut short by the terminator ends the text before that
        // character; the count of the characters before it is the result.
        if (length < 1) return count;
        ++count;
        // Full: the count, one more than the units stored, tells the caller
        // that the text was cut. At most size - 1 units plus the terminator
        // are ever written.
        if (count >= unicode_str_size) return count;
        // Code points above U+FFFF keep their low 16 bits only.
        *out++ = static_cast<unsigned short>(value & 0xFFFF);
        *out = 0;
        in += length;
    }
    return count;
}

void units_to_utf8(const unsigned char *unicode, int len, unsigned char *utf8) noexcept {
    if (utf8 == nullptr) return;
    // A negative length or a missing input is an empty text.
    const std::size_t bytes = (unicode == nullptr || len < 0) ? 0 : static_cast<std::size_t>(len);
    // The caller provides 3 bytes per unit plus the terminator: the most that
    // any unit takes, so nothing is ever cut at this capacity.
    const std::size_t capacity = 3 * (bytes / 2) + 1;
    utf16be_to_utf8(std::span<const uint8_t>(unicode, bytes),
                          std::span<char>(reinterpret_cast<char *>(utf8), capacity));
}

}  // namespace kplc
