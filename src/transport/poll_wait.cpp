#include "transport/poll_wait.hpp"

#include <poll.h>
#include <time.h>

#include <cerrno>
#include <climits>

namespace kplc::transport {

namespace {

int64_t now_ms() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int wait_for(int fd, short events, int64_t timeout_ms) noexcept {
    if (timeout_ms < 0) timeout_ms = 0;
    const int64_t deadline = now_ms() + timeout_ms;
    int64_t left = timeout_ms;
    for (;;) {
        // poll() takes an int of milliseconds; a longer wait is done in slices.
        const int slice = left > INT_MAX ? INT_MAX : static_cast<int>(left);
        pollfd p{fd, events, 0};
        const int rc = ::poll(&p, 1, slice);
        if (rc > 0) {
            // A descriptor that is not open is a failed wait, as select() reports it.
            if (p.revents & POLLNVAL) {
                errno = EBADF;
                return -1;
            }
            return 1;
        }
        if (rc < 0 && errno != EINTR) return -1;
        left = deadline - now_ms();
        if (left <= 0) return 0;
    }
}

}  // namespace

int wait_readable(int fd, int64_t timeout_ms) noexcept { return wait_for(fd, POLLIN, timeout_ms); }

int wait_writable(int fd, int64_t timeout_ms) noexcept { return wait_for(fd, POLLOUT, timeout_ms); }

}  // namespace kplc::transport
