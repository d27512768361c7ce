#include "tag_types.hpp"

#include <array>

namespace kplc::cli {
namespace {

// Codes and widths as the driver's tag file parser assigns them.
constexpr std::array<TypeInfo, 24> kTypes{{
    {"BOOL", 193, 1, ValueKind::Bool},
    {"SINT", 194, 8, ValueKind::Signed},
    {"INT", 195, 16, ValueKind::Signed},
    {"DINT", 196, 32, ValueKind::Signed},
    {"LINT", 197, 64, ValueKind::Signed},
    {"USINT", 198, 8, ValueKind::Unsigned},
    {"UINT", 199, 16, ValueKind::Unsigned},
    {"UDINT", 200, 32, ValueKind::Unsigned},
    {"ULINT", 201, 64, ValueKind::Unsigned},
    {"REAL", 202, 32, ValueKind::Real},
    {"LREAL", 203, 64, ValueKind::Real},
    {"STIME", 204, 16, ValueKind::Signed},
    {"DATE", 205, 32, ValueKind::Unsigned},
    {"TIMEOFDAY", 206, 32, ValueKind::Unsigned},
    {"DATEANDTIME", 207, 32, ValueKind::Unsigned},
    {"STRING", 208, 0, ValueKind::Text},
    {"BYTE", 209, 8, ValueKind::Bits},
    {"WORD", 210, 16, ValueKind::Bits},
    {"DWORD", 211, 32, ValueKind::Bits},
    {"LWORD", 212, 64, ValueKind::Bits},
    {"STRING2", 213, 0, ValueKind::Text},
    {"TIME", 214, 32, ValueKind::Signed},
    {"WSTRING", kTypeWString, 0, ValueKind::WideText},
    {"LTIME", 216, 64, ValueKind::Signed},
}};

}  // namespace

const TypeInfo *type_info(uint16_t code) noexcept {
    for (const TypeInfo &t : kTypes)
        if (t.code == code) return &t;
    return nullptr;
}

}  // namespace kplc::cli
