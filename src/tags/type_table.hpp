// The PLC's elementary types as tag files name them.
#pragma once

#include <array>
#include <string_view>

#include "kplc/tags.h"

namespace kplc {

// Rows in search order, closed by an end row (empty name, id 65535). `id` is
// the type code the PLC uses on the wire (193 to 213 coincide with the CIP
// elementary codes); `bits` sizes one element for the read and write paths,
// 0 meaning a string whose size comes from the tag's byte length.
inline constexpr std::array<var_type, 25> type_list{{
    {"BOOL", 1, 193},
    {"SINT", 8, 194},
    {"INT", 16, 195},
    {"DINT", 32, 196},
    {"LINT", 64, 197},
    {"USINT", 8, 198},
    {"UINT", 16, 199},
    {"UDINT", 32, 200},
    {"ULINT", 64, 201},
    {"REAL", 32, 202},
    {"LREAL", 64, 203},
    {"STIME", 16, 204},
    {"DATE", 32, 205},
    {"STRING", 0, 208},
    {"BYTE", 8, 209},
    {"WORD", 16, 210},
    {"DWORD", 32, 211},
    {"LWORD", 64, 212},
    {"STRING2", 0, 213},
    {"TIMEOFDAY", 32, 206},
    {"DATEANDTIME", 32, 207},
    {"TIME", 32, 214},
    {"WSTRING", 0, 215},
    {"LTIME", 64, 216},
    {"", 0, 65535},
}};

// The row whose name equals `name` exactly (case-sensitive), or nullptr. The
// end row is never a match: an empty type column names no type.
const var_type *find_type(std::string_view name) noexcept;

}  // namespace kplc
