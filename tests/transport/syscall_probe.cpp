// Definitions of libc socket entry points that forward to the next definition
// (libc, or the sanitizer's interceptor) and count calls of the thread that
// holds a CallProbe. No system header that declares these routines is
// included here, so their definitions need not match glibc's exception
// specifications.
#include "transport/syscall_probe.hpp"

#include <dlfcn.h>
#include <sys/types.h>

struct pollfd;
struct msghdr;
struct sockaddr;
struct timespec;
using socklen_type = unsigned int;

namespace {

thread_local bool t_active = false;
thread_local kplc::transport_test::CallCounts t_counts;

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

#define KPLC_FORWARD(counter, ret, name, params, args)                  \
    extern "C" ret name params {                                          \
        static auto real = next<ret(*) params>(#name);                    \
        if (t_active) ++t_counts.counter;                                 \
        return real args;                                                 \
    }

}  // namespace

KPLC_FORWARD(sends, ssize_t, send, (int fd, const void *b, size_t n, int f), (fd, b, n, f))
KPLC_FORWARD(sends, ssize_t, sendto, (int fd, const void *b, size_t n, int f, const sockaddr *a, socklen_type l),
             (fd, b, n, f, a, l))
KPLC_FORWARD(sends, ssize_t, sendmsg, (int fd, const msghdr *m, int f), (fd, m, f))
KPLC_FORWARD(sends, ssize_t, write, (int fd, const void *b, size_t n), (fd, b, n))
KPLC_FORWARD(reads, ssize_t, recv, (int fd, void *b, size_t n, int f), (fd, b, n, f))
KPLC_FORWARD(reads, ssize_t, recvfrom, (int fd, void *b, size_t n, int f, sockaddr *a, socklen_type *l),
             (fd, b, n, f, a, l))
KPLC_FORWARD(reads, ssize_t, recvmsg, (int fd, msghdr *m, int f), (fd, m, f))
KPLC_FORWARD(reads, ssize_t, read, (int fd, void *b, size_t n), (fd, b, n))
KPLC_FORWARD(polls, int, poll, (pollfd * p, unsigned long n, int t), (p, n, t))
KPLC_FORWARD(polls, int, ppoll, (pollfd * p, unsigned long n, const timespec *t, const void *s), (p, n, t, s))


namespace kplc::transport_test {

CallProbe::CallProbe() { t_counts = {}, t_active = true; }
CallProbe::~CallProbe() { t_active = false; }
CallCounts CallProbe::counts() const { return t_counts; }

}  // namespace kplc::transport_test
