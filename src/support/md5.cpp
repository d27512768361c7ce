// MD5 digest (RFC 1321) of a whole file, as 32 lower-case hex characters.
//
// The digest state lives on the stack of each call rather than in
// process-wide storage, so two digests can run at the same time and a call
// never sees what an earlier one left behind.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <array>
#include <limits>

#include <sys/types.h>

#include "support/utilities.hpp"

namespace {

using Block = std::array<unsigned char, 64>;
using Chain = std::array<uint32_t, 4>;

constexpr Chain kInitialChain{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};

// Per-step left rotations, four per round.
constexpr std::array<int, 16> kShift{7, 12, 17, 22, 5, 9, 14, 20, 4, 11, 16, 23, 6, 10, 15, 21};

// T[i] = floor(abs(sin(i + 1)) * 2^32).
constexpr std::array<uint32_t, 64> kSine{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr uint32_t rotl(uint32_t x, int n) noexcept { return (x << n) | (x >> (32 - n)); }

// One compression of a 64-byte block into the chaining words. Block words are
// the file bytes taken in little-endian order.
void compress(Chain &chain, const Block &block) noexcept {
    std::array<uint32_t, 16> m{};
    for (std::size_t i = 0; i < m.size(); ++i)
        m[i] = static_cast<uint32_t>(block[4 * i]) | static_cast<uint32_t>(block[4 * i + 1]) << 8 |
               static_cast<uint32_t>(block[4 * i + 2]) << 16 | static_cast<uint32_t>(block[4 * i + 3]) << 24;

    uint32_t a = chain[0], b = chain[1], c = chain[2], d = chain[3];
    for (int i = 0; i < 64; ++i) {
        const int round = i / 16;
        uint32_t f = 0;
        int g = 0;
        switch (round) {
            case 0: f = (b & c) | (~b & d); g = i; break;
            case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
            case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
            default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
        }
        const uint32_t next = b + rotl(a + f + kSine[static_cast<std::size_t>(i)] + m[static_cast<std::size_t>(g)],
                                       kShift[static_cast<std::size_t>(round * 4 + i % 4)]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    chain[0] += a;
    chain[1] += b;
    chain[2] += c;
    chain[3] += d;
}

uint32_t byte_swap(uint32_t v) noexcept {
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

// Names of files that a quoted name may take after losing its quotes. A longer
// quoted name cannot be copied and is reported as a file that cannot be opened.
constexpr std::size_t kMaxQuotedName = 4096;

// Fills the front of the cleared block with what the file still holds; a short
// read leaves zeros, so the count read is not needed (fortified builds insist
// that fread's result is taken).
void read_into(Block &block, std::size_t count, std::FILE *file) {
    const std::size_t got = std::fread(block.data(), 1, count, file);
    static_cast<void>(got);
}

}  // namespace

namespace kplc::support {

int file_md5(const char *filename, char *md5_sum) noexcept {
    // Without a name or a place for the digest there is nothing to compute.
    if (filename == nullptr || md5_sum == nullptr) return 0;

    // A quoted name (as a shell or a dialog may hand it over) loses its first
    // and last characters. The caller's text is left as it is: the unquoted
    // name is copied.
    std::array<char, kMaxQuotedName> unquoted{};
    const char *name = filename;
    if (filename[0] == '"') {
        const std::size_t length = std::strlen(filename);
        const std::size_t inner = length >= 2 ? length - 2 : 0;
        if (inner < unquoted.size()) {
            std::memcpy(unquoted.data(), filename + 1, inner);
            unquoted[inner] = '\0';
        }
        name = unquoted.data();
    }

    // The interactive front end of this routine quits on "exit".
    if (std::strcmp(name, "exit") == 0) std::exit(0);

    std::FILE *file = name[0] != '\0' ? std::fopen(name, "rb") : nullptr;
    if (file == nullptr) {
        std::puts("Can not open this file!");
        return 0;
    }

    // The length is handled as a 32-bit signed position, as the block count
    // and the remainder below are. An end that cannot be found (a position
    // too large for the platform's off_t) counts as too large as well.
    off_t end = -1;
    if (fseeko(file, 0, SEEK_END) == 0) end = ftello(file);
    if (end < 0 || end > std::numeric_limits<int32_t>::max()) {
        std::puts("Sorry! Can not calculate files which larger than 2 GB!");
        std::fclose(file);
        return 0;
    }
    const auto length = static_cast<uint32_t>(end);
    std::rewind(file);

    Chain chain = kInitialChain;
    const uint64_t bit_count = 8 * static_cast<uint64_t>(length);
    Block block{};

    // Whole blocks. A file that shrinks meanwhile leaves zeros in the block
    // (it is cleared before every read); the digest then covers those zeros.
    for (uint32_t n = length / 64; n > 0; --n) {
        block.fill(0);
        read_into(block, block.size(), file);
        compress(chain, block);
    }

    // The rest, the 0x80 marker, and the bit length in the last 8 bytes; when
    // the marker leaves no room for the length (more than 55 bytes left) the
    // length goes into one more block of its own.
    const std::size_t rest = length % 64;
    block.fill(0);
    read_into(block, rest, file);
    block[rest] = 0x80;
    if (rest > 55) {
        compress(chain, block);
        block.fill(0);
    }
    for (std::size_t i = 0; i < 8; ++i) block[56 + i] = static_cast<unsigned char>(bit_count >> (8 * i));
    compress(chain, block);
    std::fclose(file);

    // The digest is the chaining words in little-endian byte order.
    std::snprintf(md5_sum, 33, "%08x%08x%08x%08x", byte_swap(chain[0]), byte_swap(chain[1]), byte_swap(chain[2]),
                  byte_swap(chain[3]));
    return 1;
}

}  // namespace kplc::support
