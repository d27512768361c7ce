#include "capability.hpp"

#include <algorithm>
#include <array>

#include "format/tag.hpp"
#include "text.hpp"

namespace kplc::cli {

bool driver_reads(const Tag &tag, std::string &why) {
    const format::ReadBlock block = format::read_block(tag.rec);
    if (block != format::ReadBlock::UnknownType && !tag.shape) {
        why = "its array bounds are unusable";
        return false;
    }
    switch (block) {
        case format::ReadBlock::None: return true;
        case format::ReadBlock::UnknownType: why = "its type is unknown"; break;
        case format::ReadBlock::EightBit: why = cat("the driver does not read 8-bit types (", tag.type->name, ")"); break;
        case format::ReadBlock::TextWithoutLength:
            why = cat("the driver has no read for ", tag.type->name, " without a string length");
            break;
        case format::ReadBlock::EmptyString: why = "a string of length 0 cannot be read"; break;
        case format::ReadBlock::StringTooLong:
            why = cat("strings of more than ", format::kMaxReadStringBytes, " bytes cannot be read (this one holds ",
                      tag.element_bytes, ")");
            break;
    }
    return false;
}

bool driver_writes(const Tag &tag, std::string &why) {
    if (tag.type == nullptr) why = "its type is unknown";
    else if (!tag.shape) why = "its array bounds are unusable";
    else if (!format::has_writer(tag.type->code)) why = cat("the driver has no writer for ", tag.type->name);
    else if (tag.element_bytes == 0) why = "a string of length 0 cannot be written";
    else return true;
    return false;
}

uint32_t longest_wire_name(const Tag &tag) {
    uint32_t units = 0;
    for (std::size_t i = 0; tag.rec.name[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(tag.rec.name[i]);
        if ((c & 0xC0) != 0x80) units += c >= 0xF0 ? 2 : 1;  // a character beyond the BMP takes a surrogate pair
    }
    if (!tag.shape) return units;
    if (tag.shape->dims != 0) {
        units += 2;  // "[" "]"
        for (unsigned d = 0; d < tag.shape->dims; ++d)  // "#i", ",#j"
            units += 1 + (d != 0) +
                     static_cast<uint32_t>(std::max(format::decimal_chars(tag.shape->lo[d]),
                                                    format::decimal_chars(tag.shape->hi[d])));
    }
    // The character suffix "[#c]", c at most the element's last character.
    if (tag.is_string_shape())
        units += 3 + static_cast<uint32_t>(format::decimal_chars(
                         static_cast<int32_t>(tag.element_bytes > 0 ? tag.element_bytes - 1 : 0)));
    return units;
}

}  // namespace kplc::cli
