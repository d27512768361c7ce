// Hex dumps of a byte buffer on standard output: a heading, then ten bytes to
// a line, each line begun by "\r\n".
#include <cstdio>

#include "support/utilities.hpp"

namespace {

constexpr int kBytesPerLine = 10;

void dump_bytes(const unsigned char *buf, int len) noexcept {
    // A missing buffer dumps as no bytes.
    if (buf == nullptr) len = 0;
    for (int i = 0; i < len; ++i) {
        if (i % kBytesPerLine == 0) std::printf("\r\n");
        std::printf("0x%02x ", buf[i]);
    }
    std::printf("\r\n");
}

}  // namespace

namespace kplc::support {

void dump_named(const unsigned char *buf, int len) noexcept {
    std::printf("[%s] len=%d", "dump_b", len);
    dump_bytes(buf, len);
}

void dump_prefixed(const char *prefix, const unsigned char *buf, int len) noexcept {
    std::printf("[%s]\tlen=%d", prefix != nullptr ? prefix : "", len);
    dump_bytes(buf, len);
}

}  // namespace kplc::support
