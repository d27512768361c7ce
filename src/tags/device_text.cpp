#include "tags/device_text.hpp"

#include <array>
#include <bit>
#include <cstddef>

namespace kplc {
namespace {

// The rules whose mnemonic starts with each character, a bit per rule.
constexpr std::array<uint32_t, 256> kStartingWith = [] {
    std::array<uint32_t, 256> rules{};
    for (std::size_t r = 0; r < format::kDeviceMnemonics.size(); ++r)
        rules[static_cast<unsigned char>(format::kDeviceMnemonics[r].mnemonic[0])] |= 1U << r;
    return rules;
}();

}  // namespace

uint8_t device_class(std::string_view text) noexcept {
    if (text.size() < 3) return kNoDevice;
    // One walk of the text notes which mnemonics occur in it (a bit per rule),
    // then the first rule in order that occurred wins, as if each were searched
    // for in turn.
    uint32_t seen = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (uint32_t rules = kStartingWith[static_cast<unsigned char>(text[i])]; rules != 0; rules &= rules - 1) {
            const auto r = static_cast<std::size_t>(std::countr_zero(rules));
            const std::string_view m = format::kDeviceMnemonics[r].mnemonic;
            if (m.size() == 1 || (i + 1 < text.size() && text[i + 1] == m[1])) seen |= 1U << r;
        }
    }
    if (seen == 0) return kNoDevice;
    return format::kDeviceMnemonics[static_cast<std::size_t>(std::countr_zero(seen))].code;
}

}  // namespace kplc
