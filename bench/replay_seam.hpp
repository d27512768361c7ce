// A seam for timing the driver's own work per call without the kernel: while
// active on the calling thread, send(), recv() and poll() never reach the
// kernel. A sent request is answered at once with the reply canned for its
// command code, the next poll() reports it ready and the next recv() returns
// it. On every other thread, and when inactive, the calls go to the C library
// unchanged.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kplc::bench::replay {

// Replaces the canned replies (command code -> reply bytes).
void set_reply(uint16_t command, std::span<const uint8_t> reply);
void clear_replies();

// Turns the seam on or off for the calling thread.
void activate(bool on);

}  // namespace kplc::bench::replay
