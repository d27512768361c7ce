// Device class of a tag, from the device column of its tag file line.
#pragma once

#include <cstdint>
#include <string_view>

#include "format/device_class.hpp"

namespace kplc {

using format::kNoDevice;

// The PLC's device class for a device text such as "DM100": the first
// memory-area mnemonic found in it decides; texts under 3 characters name no
// device.
uint8_t device_class(std::string_view text) noexcept;

}  // namespace kplc
