// What the tool knows about the PLC's elementary types: how a value of each
// type sits in the runtime's value buffer and how to show it.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "format/types.hpp"

namespace kplc::cli {

using format::ValueKind;
using TypeInfo = format::TypeRow;

// The row of the type code the tag file parser stored, or nullptr.
constexpr const TypeInfo *type_info(uint16_t code) noexcept { return format::type_of(code); }

inline constexpr uint16_t kTypeWString = format::kWString;

}  // namespace kplc::cli
