// The PLC's elementary types: the name a tag file gives, the type code the PLC
// uses on the wire (193 to 216), the width of one element in bits (0: a text
// whose size comes from the tag's byte length) and how a value's bytes are read. The driver's tag file parser, the
// simulator and the command-line tool all take their types from this table.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <string_view>

namespace kplc::format {

// How the bytes of one element are interpreted in the runtime's value buffer.
enum class ValueKind : uint8_t {
    Bool,      // one byte per bit, 0 or 1
    Signed,    // little-endian two's complement
    Unsigned,  // little-endian
    Bits,      // bit strings (BYTE, WORD, ...)
    Real,      // IEEE 754, 4 or 8 bytes, little-endian
    Text,      // 8-bit characters, zero-terminated within the element
    WideText,  // UTF-16 code units, high byte first, as the PLC sends them
};

enum TypeCode : uint16_t {
    kBool = 193, kSint = 194, kInt = 195, kDint = 196, kLint = 197, kUsint = 198, kUint = 199, kUdint = 200,
    kUlint = 201, kReal = 202, kLreal = 203, kStime = 204, kDate = 205, kTimeOfDay = 206, kDateAndTime = 207,
    kString = 208, kByte = 209, kWord = 210, kDword = 211, kLword = 212, kString2 = 213, kTime = 214,
    kWString = 215, kLtime = 216,
};

struct TypeRow {
    const char *name;
    uint8_t bits;
    uint16_t code;
    ValueKind kind;
};

// In the parser's search order.
inline constexpr std::array<TypeRow, 24> kTypes{{
    {"BOOL", 1, kBool, ValueKind::Bool},
    {"SINT", 8, kSint, ValueKind::Signed},
    {"INT", 16, kInt, ValueKind::Signed},
    {"DINT", 32, kDint, ValueKind::Signed},
    {"LINT", 64, kLint, ValueKind::Signed},
    {"USINT", 8, kUsint, ValueKind::Unsigned},
    {"UINT", 16, kUint, ValueKind::Unsigned},
    {"UDINT", 32, kUdint, ValueKind::Unsigned},
    {"ULINT", 64, kUlint, ValueKind::Unsigned},
    {"REAL", 32, kReal, ValueKind::Real},
    {"LREAL", 64, kLreal, ValueKind::Real},
    {"STIME", 16, kStime, ValueKind::Signed},
    {"DATE", 32, kDate, ValueKind::Unsigned},
    {"STRING", 0, kString, ValueKind::Text},
    {"BYTE", 8, kByte, ValueKind::Bits},
    {"WORD", 16, kWord, ValueKind::Bits},
    {"DWORD", 32, kDword, ValueKind::Bits},
    {"LWORD", 64, kLword, ValueKind::Bits},
    {"STRING2", 0, kString2, ValueKind::Text},
    {"TIMEOFDAY", 32, kTimeOfDay, ValueKind::Unsigned},
    {"DATEANDTIME", 32, kDateAndTime, ValueKind::Unsigned},
    {"TIME", 32, kTime, ValueKind::Signed},
    {"WSTRING", 0, kWString, ValueKind::WideText},
    {"LTIME", 64, kLtime, ValueKind::Signed},
}};

// The rows whose name starts with each character, a bit per row.
inline constexpr std::array<uint32_t, 256> kTypesStartingWith = [] {
    std::array<uint32_t, 256> rows{};
    for (std::size_t r = 0; r < kTypes.size(); ++r) rows[static_cast<unsigned char>(kTypes[r].name[0])] |= 1U << r;
    return rows;
}();

// The row named exactly `name` (case-sensitive), or nullptr; an empty name names no type.
constexpr const TypeRow *type_named(std::string_view name) noexcept {
    if (name.empty()) return nullptr;
    // Only the rows that start with the name's first character are compared,
    // in table order, character by character up to the first difference.
    for (uint32_t rows = kTypesStartingWith[static_cast<unsigned char>(name[0])]; rows != 0; rows &= rows - 1) {
        const TypeRow &row = kTypes[static_cast<std::size_t>(std::countr_zero(rows))];
        std::size_t i = 1;
        while (i < name.size() && row.name[i] != '\0' && row.name[i] == name[i]) ++i;
        if (i == name.size() && row.name[i] == '\0') return &row;
    }
    return nullptr;
}

// The row of a type code, or nullptr.
constexpr const TypeRow *type_of(uint16_t code) noexcept {
    for (const TypeRow &row : kTypes)
        if (row.code == code) return &row;
    return nullptr;
}

}  // namespace kplc::format
