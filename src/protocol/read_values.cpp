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

void place_number(std::span<uint8_t> value, std::span<const uint8_t> words) noexcept {
    for (std::size_t k = 0; k + 1 < words.size() && k + 1 < value.size(); k += 2) {
        value[k] = words[k + 1];
        value[k + 1] = words[k];
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

void place(const RequestPlan &request, uint32_t m, std::span<const uint8_t> words, uint8_t bit, void *buffer) noexcept {
    auto *base = static_cast<uint8_t *>(buffer);
    if (request.is_string()) {
        place_chunk(request, m, words, std::span<uint8_t>(base, request.limit));
        return;
    }
    const uint8_t bits = request.tag->bits;
    if (bits == 1) {
        base[m] = bit_of(words, bit);
        return;
    }
    // Element m of a 16/32/64-bit request: bytes width*m onwards. count *
    // width bytes never exceed the regNums bytes the runtime asked for.
    const std::size_t width = bits / 8U;
    place_number(std::span<uint8_t>(base + width * m, width), words);
}

}  // namespace

unsigned decode_values(const PassPlan &plan, std::span<const uint8_t> response,
                       std::span<DrvRWBuf *const> bufs) noexcept {
    FrameReader values(response, kResponseDataOffset);
    for (std::size_t i = 0; i < plan.size && i < bufs.size(); ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        DrvRWBuf &buf = *bufs[i];
        for (uint32_t m = 0; m < request.count; ++m) {
            // A PLC that cannot resolve or read a name answers short; it is
            // noticed here, at the first element whose words did not arrive.
            const auto words = values.take(2 * static_cast<std::size_t>(element_words(request, m)));
            if (!words) {
                buf.error = ER_TIMEOUT;
                return ER_TIMEOUT;
            }
            // Only BOOL elements have a bit number.
            const std::size_t entry = request.first_entry + static_cast<std::size_t>(m);
            const uint8_t bit = request.tag->bits == 1 && entry < plan.bit_numbers.size() ? plan.bit_numbers[entry] : 0;
            place(request, m, *words, bit, buf.buff);
        }
        buf.error = ER_OK;
    }
    return ER_OK;
}

}  // namespace kplc::proto::read
