#include "tags/device_class.hpp"

#include <array>

namespace kplc {
namespace {

struct DeviceRule {
    std::string_view mnemonic;
    uint8_t code;
};

// Tried in this order, by substring, and the first hit wins: each two-letter
// area is tested before the single letters it contains (CR10 is class 1, not
// the plain R class 0).
constexpr std::array<DeviceRule, 13> kDeviceRules{{
    {"EM", format::kDeviceEM},
    {"MR", format::kDeviceMR},
    {"LR", format::kDeviceLR},
    {"DM", format::kDeviceDM},
    {"TM", format::kDeviceTM},
    {"FM", format::kDeviceFM},
    {"CM", format::kDeviceCM},
    {"ZF", format::kDeviceZF},
    {"B", format::kDeviceB},
    {"CR", format::kDeviceCR},
    {"DR", format::kDeviceR},
    {"W", format::kDeviceW},
    {"R", format::kDeviceR},
}};

}  // namespace

uint8_t device_class(std::string_view text) noexcept {
    if (text.size() < 3) return kNoDevice;
    for (const DeviceRule &rule : kDeviceRules)
        if (text.find(rule.mnemonic) != std::string_view::npos) return rule.code;
    return kNoDevice;
}

}  // namespace kplc
