// What the tool knows about the PLC's elementary types: how a value of each
// type sits in the runtime's value buffer and how to show it.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kplc::cli {

// How the bytes of one element are interpreted.
enum class ValueKind : uint8_t {
    Bool,      // one byte per bit, 0 or 1
    Signed,    // little-endian two's complement
    Unsigned,  // little-endian
    Bits,      // bit strings (BYTE, WORD, ...), shown in hexadecimal
    Real,      // IEEE 754, 4 or 8 bytes, little-endian
    Text,      // 8-bit characters, zero-terminated within the element
    WideText,  // UTF-16 code units, high byte first, as the PLC sends them
};

struct TypeInfo {
    std::string_view name;
    uint16_t code;
    uint8_t bits;  // 0 for the text types
    ValueKind kind;
};

// The row of the type code the tag file parser stored, or nullptr.
const TypeInfo *type_info(uint16_t code) noexcept;

inline constexpr uint16_t kTypeWString = 215;

}  // namespace kplc::cli
