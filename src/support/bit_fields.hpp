// Bit-field copy out of 16-bit words and the small number helpers.
#pragma once

#include <cstdint>

namespace kplc::support {

// Copies `bitLen` bits starting at bit `bitTh` of the 16-bit words at `src`
// (host order; bit p is bit p % 16 of word p / 16) to bits 0, 1, ... of the
// bytes at `dst`, leaving the other bits of `dst` alone. Nothing is copied for
// a missing buffer or a negative start or length. Returns `dst`.
unsigned char *copy_word_bits(const void *src, void *dst, int bitTh, int bitLen) noexcept;
// The same where positions from 16 on continue in the word at `src2`.
unsigned char *copy_word_bits2(const void *src, void *dst, int bitTh, int bitLen, const void *src2) noexcept;

// The value of one hex digit (either case), -1 for any other character.
int hex_digit_value(char ch) noexcept;
// The `nlen` hex digits at `source` as a number, in wrapping 32-bit arithmetic.
long hex_to_number(const char *source, int nlen) noexcept;
// `result` doubled `n` times in wrapping 32-bit arithmetic.
int doubled(int result, int n) noexcept;

// Bytes and 16-bit words that `bit_len` bits take, rounded up.
uint32_t bytes_for_bits(uint32_t bit_len) noexcept;
uint32_t words_for_bits(uint32_t bit_len) noexcept;

}  // namespace kplc::support
