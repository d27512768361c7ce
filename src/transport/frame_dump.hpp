// Hex dump of a frame for diagnostics.
#pragma once

namespace kplc::transport {

// Prints `size` bytes, 20 to a line, each line led by the address and offset
// of its first byte; nothing at level 0 or without a buffer.
void dump_frame(int level, const void *buffer, int size) noexcept;

}  // namespace kplc::transport
