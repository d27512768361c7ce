// The PLC's address as dotted text, the form the resolver and the messages use.
#pragma once

#include <array>

namespace kplc::transport {

// Room for "255.255.255.255" and its terminator, with margin.
using AddressText = std::array<char, 20>;

// The address is one number with the first octet in the most significant
// byte: 0xC0A8000A is "192.168.0.10". Octets are printed without leading zeros.
AddressText address_text(unsigned int address) noexcept;

}  // namespace kplc::transport
