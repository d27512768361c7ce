// Timed waits on one descriptor, built on poll() so that descriptor numbers
// above FD_SETSIZE (1024) work the same as small ones.
#pragma once

#include <cstdint>

namespace kplc::transport {

// Waits until `fd` is readable (input, end of stream or an error to collect
// with a read) or `timeout_ms` passes; 0 polls without waiting.
// Returns 1 when ready, 0 on time-out, -1 when the wait itself failed (for
// example a descriptor that is not open). A signal does not end the wait
// early: it is resumed for the time that is left.
int wait_readable(int fd, int64_t timeout_ms) noexcept;

// The same for writability, which is how a non-blocking connect reports that
// it has finished (successfully or not).
int wait_writable(int fd, int64_t timeout_ms) noexcept;

}  // namespace kplc::transport
