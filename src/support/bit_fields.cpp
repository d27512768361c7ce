// Bit-field copy out of 16-bit words and the small number helpers that the
// structure bit writers use to test and flip one bit of a PLC word.
#include "support/bit_fields.hpp"

#include <cstring>

namespace {

// Source bit p is bit p % 16 of word p / 16 (words in host order). The words
// may sit at any address in the caller's buffer, so each is copied out.
bool word_bit(const void *words, uint32_t p) noexcept {
    uint16_t word = 0;
    std::memcpy(&word, static_cast<const unsigned char *>(words) + 2 * (p / 16), sizeof word);
    return ((word >> (p % 16)) & 1u) != 0;
}

// Destination bit q is bit q % 8 of byte q / 8; the other bits keep their values.
void put_bit(void *bytes, uint32_t q, bool set) noexcept {
    unsigned char &byte = static_cast<unsigned char *>(bytes)[q / 8];
    const auto mask = static_cast<unsigned char>(1u << (q % 8));
    byte = set ? static_cast<unsigned char>(byte | mask) : static_cast<unsigned char>(byte & ~mask);
}

// A negative start or length names no bits: nothing is copied rather than
// reading before the source buffer.
bool copy_refused(const void *src, const void *dst, int bitTh, int bitLen) noexcept {
    return src == nullptr || dst == nullptr || bitTh < 0 || bitLen <= 0;
}

}  // namespace

namespace kplc::support {

unsigned char *copy_word_bits(const void *src, void *dst, int bitTh, int bitLen) noexcept {
    if (copy_refused(src, dst, bitTh, bitLen)) return static_cast<unsigned char *>(dst);
    const auto start = static_cast<uint32_t>(bitTh);
    for (uint32_t s = 0; s < static_cast<uint32_t>(bitLen); ++s) put_bit(dst, s, word_bit(src, start + s));
    return static_cast<unsigned char *>(dst);
}

unsigned char *copy_word_bits2(const void *src, void *dst, int bitTh, int bitLen, const void *src2) noexcept {
    if (copy_refused(src, dst, bitTh, bitLen) || src2 == nullptr) return static_cast<unsigned char *>(dst);
    const auto start = static_cast<uint32_t>(bitTh);
    for (uint32_t s = 0; s < static_cast<uint32_t>(bitLen); ++s) {
        // Positions 0-15 are the one word of `src`; from 16 on they continue in `src2`.
        const uint32_t p = start + s;
        put_bit(dst, s, p < 16 ? word_bit(src, p) : word_bit(src2, p - 16));
    }
    return static_cast<unsigned char *>(dst);
}

int hex_digit_value(char ch) noexcept {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    return -1;
}

long hex_to_number(const char *source, int nlen) noexcept {
    if (source == nullptr) return 0;
    // 32-bit arithmetic, wrapping: a non-digit counts as -1 times its weight,
    // and eight digits or more fold into a signed 32-bit value.
    uint32_t sum = 0;
    uint32_t weight = 1;
    for (int i = nlen - 1; i >= 0; --i) {
        sum += weight * static_cast<uint32_t>(hex_digit_value(source[i]));
        weight *= 16;
    }
    return static_cast<long>(static_cast<int32_t>(sum));
}

int doubled(int result, int n) noexcept {
    // Doubling in 32 bits wraps; after 32 doublings every value is 0, so the
    // loop never needs to run longer than that.
    auto value = static_cast<uint32_t>(result);
    for (int i = 0; i < n && i < 32; ++i) value *= 2;
    return static_cast<int>(value);
}

uint32_t bytes_for_bits(uint32_t bit_len) noexcept { return bit_len / 8 + (bit_len % 8 != 0 ? 1 : 0); }

uint32_t words_for_bits(uint32_t bit_len) noexcept { return bit_len / 16 + (bit_len % 16 != 0 ? 1 : 0); }

}  // namespace kplc::support
