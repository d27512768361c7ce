// Counts the socket calls made by the calling thread while a probe is active.
// The test program itself defines the libc entry points (send, recv, poll, ...)
// and forwards them, so the library linked into it is observed without any
// seam of its own.
#pragma once

#include <cstddef>

namespace kplc::transport_test {

struct CallCounts {
    std::size_t sends = 0;    // send, sendto, sendmsg, write
    std::size_t reads = 0;    // recv, recvfrom, recvmsg, read
    std::size_t polls = 0;    // poll, ppoll (the library has no select())
};

class CallProbe {
public:
    CallProbe();
    ~CallProbe();
    CallProbe(const CallProbe &) = delete;
    CallProbe &operator=(const CallProbe &) = delete;
    [[nodiscard]] CallCounts counts() const;
};

}  // namespace kplc::transport_test
