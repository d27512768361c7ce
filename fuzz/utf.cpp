// The UTF-8 and UTF-16 conversions, on arbitrary bytes and arbitrary output
// capacities. The first input byte picks the capacity; the rest is the text.
//
// Checked: no read or write outside exactly sized heap blocks; the results
// stay within the capacity and the outputs are terminated; and a round trip of
// any code units without a 0 unit (surrogates included, each unit stands for
// itself) through big-endian UTF-16 -> UTF-8 -> code units gives the units back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "kplc/support.h"
#include "support/text_encoding.hpp"

namespace {

template <typename T>
T *block(std::size_t n) {
    auto *p = static_cast<T *>(std::malloc(n * sizeof(T) + (n == 0 ? 1 : 0)));
    if (p == nullptr) std::abort();
    return p;
}

void utf8_to_units(std::span<const uint8_t> text, int capacity) {
    auto *in = block<unsigned char>(text.size() + 1);
    if (!text.empty()) std::memcpy(in, text.data(), text.size());
    in[text.size()] = 0;
    auto *out = block<unsigned short>(static_cast<std::size_t>(capacity));
    const int count = utf8ToUnicode(in, out, capacity);
    // At the limit the count is one more than the units stored, which is the
    // capacity itself (or 1 for a capacity of 0, where nothing is stored).
    if (count < 0 || count > (capacity > 0 ? capacity : 1)) std::abort();
    // Below the capacity every character was stored and terminated.
    if (count > 0 && count < capacity && out[count] != 0) std::abort();
    std::free(out);
    std::free(in);
}

void wire_to_utf8(std::span<const uint8_t> wire, std::size_t capacity) {
    // The C routine has no capacity: 3 bytes per unit and the terminator.
    const std::size_t units = wire.size() / 2;
    auto *out = block<unsigned char>(3 * units + 1);
    unicodeToUtf8(const_cast<unsigned char *>(wire.data()), static_cast<int>(wire.size()), out);
    if (std::memchr(out, 0, 3 * units + 1) == nullptr) std::abort();
    std::free(out);

    auto *bounded = block<char>(capacity);
    const std::size_t n = kplc::utf16be_to_utf8(wire, std::span<char>(bounded, capacity));
    if (capacity > 0 && (n >= capacity || bounded[n] != 0)) std::abort();
    if (capacity == 0 && n != 0) std::abort();
    std::free(bounded);
}

void round_trip(std::span<const uint8_t> wire) {
    std::vector<uint8_t> units_be;
    for (std::size_t i = 0; i + 1 < wire.size(); i += 2)
        if (wire[i] != 0 || wire[i + 1] != 0) {
            units_be.push_back(wire[i]);
            units_be.push_back(wire[i + 1]);
        }
    const std::size_t units = units_be.size() / 2;
    auto *utf8 = block<unsigned char>(3 * units + 1);
    unicodeToUtf8(units_be.data(), static_cast<int>(units_be.size()), utf8);
    auto *back = block<unsigned short>(units + 1);
    const int count = utf8ToUnicode(utf8, back, static_cast<int>(units + 1));
    if (count != static_cast<int>(units)) std::abort();
    for (std::size_t i = 0; i < units; ++i)
        if (back[i] != (units_be[2 * i] << 8 | units_be[2 * i + 1])) std::abort();
    std::free(back);
    std::free(utf8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t pick = data[0];
    const std::span<const uint8_t> text(data + 1, size - 1);
    utf8_to_units(text, pick % 64);
    wire_to_utf8(text, pick);
    round_trip(text);
    return 0;
}
