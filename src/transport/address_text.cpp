#include "transport/address_text.hpp"

#include <cstdio>

namespace kplc::transport {

AddressText address_text(unsigned int address) noexcept {
    AddressText text{};
    // Four octets of at most three digits and three dots always fit 20 bytes.
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", (address >> 24) & 0xFFu, (address >> 16) & 0xFFu,
                  (address >> 8) & 0xFFu, address & 0xFFu);
    return text;
}

}  // namespace kplc::transport
