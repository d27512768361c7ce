// The PLC's device classes: the memory area a tag lives in, as the tag file's
// device column names it and as set bit / reset bit requests carry it.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace kplc::format {

enum DeviceClass : uint8_t {
    kDeviceR = 0,   // R and DR
    kDeviceCR = 1,
    kDeviceDM = 6,
    kDeviceCM = 7,
    kDeviceTM = 8,
    kDeviceMR = 17,
    kDeviceLR = 18,
    kDeviceEM = 23,
    kDeviceFM = 25,
    kDeviceB = 27,
    kDeviceW = 28,
    kNoDevice = 30,  // the tag file names no device
    kDeviceZF = 44,
};

struct DeviceMnemonic {
    std::string_view mnemonic;
    uint8_t code;
};

// The spellings of the device column. The tag file parser tries them in this
// order, by substring, and the first hit wins: each two-letter
// area is tested before the single letters it contains (CR10 is class 1, not
// the plain R class 0).
inline constexpr std::array<DeviceMnemonic, 13> kDeviceMnemonics{{
    {"EM", kDeviceEM},
    {"MR", kDeviceMR},
    {"LR", kDeviceLR},
    {"DM", kDeviceDM},
    {"TM", kDeviceTM},
    {"FM", kDeviceFM},
    {"CM", kDeviceCM},
    {"ZF", kDeviceZF},
    {"B", kDeviceB},
    {"CR", kDeviceCR},
    {"DR", kDeviceR},
    {"W", kDeviceW},
    {"R", kDeviceR},
}};

struct DeviceName {
    uint8_t device_class;
    std::string_view name;
};

// How the tool shows each class (R and DR share one).
inline constexpr std::array<DeviceName, 12> kDeviceNames{{
    {kDeviceR, "R/DR"}, {kDeviceCR, "CR"}, {kDeviceDM, "DM"}, {kDeviceCM, "CM"}, {kDeviceTM, "TM"},
    {kDeviceMR, "MR"},  {kDeviceLR, "LR"}, {kDeviceEM, "EM"}, {kDeviceFM, "FM"}, {kDeviceB, "B"},
    {kDeviceW, "W"},    {kDeviceZF, "ZF"},
}};

// The name of a device class; "-" for none.
constexpr std::string_view device_name(uint8_t device_class) noexcept {
    for (const DeviceName &d : kDeviceNames)
        if (d.device_class == device_class) return d.name;
    return "-";
}

// Bit areas: their BOOLs are written with set bit / reset bit, whose location
// carries only its low 16 bits.
constexpr bool written_by_set_reset(uint8_t device_class) noexcept {
    switch (device_class) {
        case kDeviceLR: case kDeviceMR: case kDeviceR: case kDeviceB: case kDeviceCR: return true;
        default: return false;
    }
}

// Word areas whose resolve items carry a BOOL's bit number in item byte 30,
// the location addressing the bit's word.
constexpr bool bit_number_in_item(uint8_t device_class) noexcept {
    switch (device_class) {
        case kDeviceEM: case kNoDevice: case kDeviceDM: case kDeviceZF: return true;
        default: return false;
    }
}

// Areas (EM, LR, MR, ZF) whose BOOL arrays the write path writes element by
// element through the member writer.
constexpr bool written_per_element(uint8_t device_class) noexcept {
    switch (device_class) {
        case kDeviceEM: case kDeviceLR: case kDeviceMR: case kDeviceZF: return true;
        default: return false;
    }
}

}  // namespace kplc::format
