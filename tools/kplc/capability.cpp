#include "capability.hpp"

#include <algorithm>
#include <array>

#include "text.hpp"

namespace kplc::cli {
namespace {

// Type codes the write dispatch hands to a writer: BOOL, INT, DINT, UINT,
// UDINT, REAL, LREAL, STRING, LTIME. Every other type returns "no writer".
constexpr std::array<uint16_t, 9> kWritable{193, 195, 196, 199, 200, 202, 203, 208, 216};

// A string element is read in one piece whose word count (characters / 2 + 1)
// travels in one byte.
constexpr uint32_t kMaxReadWords = 255;

uint32_t digits(int64_t v) { return static_cast<uint32_t>(std::to_string(v).size()); }

}  // namespace

bool driver_reads(const Tag &tag, std::string &why) {
    if (tag.type == nullptr) why = "its type is unknown";
    else if (!tag.shape) why = "its array bounds are unusable";
    else if (tag.type->bits == 8) why = cat("the driver does not read 8-bit types (", tag.type->name, ")");
    else if (tag.is_text() && !tag.is_string_shape()) why = cat("the driver has no read for ", tag.type->name, " without a string length");
    else if (tag.is_text() && tag.element_bytes == 0) why = "a string of length 0 cannot be read";
    else if (tag.is_text() && tag.element_bytes / 2 + 1 > kMaxReadWords)
        why = cat("strings of more than ", 2 * (kMaxReadWords - 1), " bytes cannot be read (this one holds ", tag.element_bytes, ")");
    else return true;
    return false;
}

bool driver_writes(const Tag &tag, std::string &why) {
    if (tag.type == nullptr) why = "its type is unknown";
    else if (!tag.shape) why = "its array bounds are unusable";
    else if (std::find(kWritable.begin(), kWritable.end(), tag.type->code) == kWritable.end())
        why = cat("the driver has no writer for ", tag.type->name);
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
    const bool indexed = tag.rec.attr == ARRAY || tag.rec.attr == ARRAY2 || tag.rec.attr == ARRAY3 || tag.is_string_shape();
    if (indexed && tag.shape->dims != 0) {
        units += 2;  // "[" "]"
        for (unsigned d = 0; d < tag.shape->dims; ++d)
            units += 1 + (d != 0) + std::max(digits(tag.shape->lo[d]), digits(tag.shape->hi[d]));  // "#i", ",#j"
    }
    if (tag.is_string_shape()) units += 4;  // the character suffix "[#c]"
    return units;
}

}  // namespace kplc::cli
