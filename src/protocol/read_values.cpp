// Decoding the read by location response into the runtime's buffers.
//
// From offset 14 the response carries each element's words back to back, in
// the order of the location entries, every word high byte first. The runtime
// wants its values in the panel's little-endian order: each word is stored low
// byte first, and the words of a 32 or 64-bit value keep their order on the
// wire (least significant word first).
#include <algorithm>
#include <cstring>

#include "protocol/frame.hpp"
#include "protocol/read_plan.hpp"

namespace kplc::proto::read {

namespace {

// Each word is stored low byte first; the words keep their order.
void place_number(uint8_t *value, const uint8_t *words, uint8_t bits) noexcept {
    switch (bits) {
        case 64:
            value[7] = words[6];
            value[6] = words[7];
            value[5] = words[4];
            value[4] = words[5];
            [[fallthrough]];
        case 32:
            value[3] = words[2];
            value[2] = words[3];
            [[fallthrough]];
        default:
            value[1] = words[0];
            value[0] = words[1];
    }
}

// A BOOL element takes one byte of the runtime buffer, 0 or 1: bit `bit` of
// the word, whose bits 0-7 are its second (low) byte.
uint8_t bit_of(std::span<const uint8_t> word, uint8_t bit) noexcept {
    const unsigned value = static_cast<unsigned>(word[0]) << 8 | word[1];
    return static_cast<uint8_t>(value >> (bit & 0x0F) & 1U);
}

// String chunk m: the characters the request covers in that element, copied
// unchanged to follow the previous chunk's characters without a gap. The
// chunk's words go one or two bytes beyond them (its word count rounds up);
// those are not copied. Nothing goes past the request's byte limit.
void place_chunk(const RequestPlan &request, uint32_t m, std::span<const uint8_t> words,
                 std::span<uint8_t> dest) noexcept {
    const uint64_t first_len = request.element_size - request.offset;
    const uint64_t start = m == 0 ? 0 : first_len + static_cast<uint64_t>(m - 1) * request.element_size;
    const uint64_t len = m == 0 ? first_len : request.element_size;
    if (start >= dest.size()) return;
    const auto n = static_cast<std::size_t>(std::min<uint64_t>({len, dest.size() - start, words.size()}));
    std::memcpy(dest.data() + start, words.data(), n);
}

}  // namespace

unsigned decode_values(const PassPlan &plan, std::span<const uint8_t> response,
                       std::span<DrvRWBuf *const> bufs) noexcept {
    std::size_t pos = kResponseDataOffset;
    for (std::size_t i = 0; i < plan.size && i < bufs.size(); ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        DrvRWBuf &buf = *bufs[i];
        auto *const base = static_cast<uint8_t *>(buf.buff);
        const uint8_t bits = request.tag->bits;
        // Every element but a string's first takes the same number of bytes.
        const std::size_t first_size = 2 * static_cast<std::size_t>(element_words(request, 0));
        const std::size_t other_size =
            request.is_string() ? 2 * static_cast<std::size_t>(element_words(request, 1)) : first_size;
        for (uint32_t m = 0; m < request.count; ++m) {
            // A PLC that cannot resolve or read a name answers short; it is
            // noticed here, at the first element whose words did not arrive.
            const std::size_t size = m == 0 ? first_size : other_size;
            if (pos > response.size() || response.size() - pos < size) {
                buf.error = ER_TIMEOUT;
                return ER_TIMEOUT;
            }
            const std::span<const uint8_t> words = response.subspan(pos, size);
            pos += size;
            if (request.is_string()) {
                place_chunk(request, m, words, std::span<uint8_t>(base, request.limit));
            } else if (bits == 1) {
                // Only BOOL elements have a bit number.
                const std::size_t entry = request.first_entry + static_cast<std::size_t>(m);
                base[m] = bit_of(words, entry < plan.bit_numbers.size() ? plan.bit_numbers[entry] : 0);
            } else {
                // Element m of a 16/32/64-bit request: bytes width*m onwards.
                // count * width bytes never exceed the regNums bytes the runtime asked for.
                place_number(base + format::value_bytes(bits) * m, words.data(), bits);
            }
        }
        buf.error = ER_OK;
    }
    return ER_OK;
}

}  // namespace kplc::proto::read
