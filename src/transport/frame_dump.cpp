// Hex dump of a frame for diagnostics.
#include "transport/frame_dump.hpp"

#include <cstdio>

namespace {

constexpr int kBytesPerLine = 20;

}  // namespace

namespace kplc::transport {

void dump_frame(int level, const void *buffer, int size) noexcept {
    if (buffer == nullptr || level == 0) return;
    const auto *bytes = static_cast<const unsigned char *>(buffer);
    // Each line: address and offset of its first byte, then up to 20 bytes.
    for (int i = 0; i < size; ++i) {
        if (i % kBytesPerLine == 0) {
            if (i > 0) std::fputs("\r\n", stdout);
            std::printf("%p (%04d) :\t", static_cast<const void *>(bytes + i), i);
        }
        std::printf("%02x ", bytes[i]);
    }
    std::fputs("\r\n", stdout);
    std::fflush(stdout);
}

}  // namespace kplc::transport
