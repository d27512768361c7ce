// Definitions of send, recv and poll that take precedence over the C
// library's in the benchmark program (the driver's static archive calls them
// by name). No system header that declares them is included, so that these
// definitions need not repeat the C library's noexcept markings.
#include "replay_seam.hpp"

#include <dlfcn.h>
#include <sys/types.h>

#include <array>
#include <cstring>

struct pollfd;

namespace kplc::bench::replay {
namespace {

struct Canned {
    uint16_t command = 0;
    std::vector<uint8_t> reply;
};
std::vector<Canned> g_replies;
thread_local bool t_active = false;
thread_local const std::vector<uint8_t> *t_pending = nullptr;

// The layout of struct pollfd, which this file does not include.
struct PollEntry {
    int fd;
    short events;
    short revents;
};
constexpr short kPollIn = 0x001;

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void set_reply(uint16_t command, std::span<const uint8_t> reply) {
    for (auto &c : g_replies)
        if (c.command == command) {
            c.reply.assign(reply.begin(), reply.end());
            return;
        }
    g_replies.push_back({command, std::vector<uint8_t>(reply.begin(), reply.end())});
}

void clear_replies() { g_replies.clear(); }

void activate(bool on) {
    t_active = on;
    t_pending = nullptr;
}

}  // namespace kplc::bench::replay

namespace rp = kplc::bench::replay;

extern "C" ssize_t send(int fd, const void *buf, size_t n, int flags) {
    static auto real = rp::next<ssize_t (*)(int, const void *, size_t, int)>("send");
    if (!rp::t_active) return real(fd, buf, n, flags);
    // Command code: bytes 10 and 11 of the request, big-endian.
    const auto *b = static_cast<const uint8_t *>(buf);
    const uint16_t command = n >= 12 ? static_cast<uint16_t>(b[10] << 8 | b[11]) : 0;
    rp::t_pending = nullptr;
    for (const auto &c : rp::g_replies)
        if (c.command == command) rp::t_pending = &c.reply;
    return static_cast<ssize_t>(n);
}

extern "C" ssize_t recv(int fd, void *buf, size_t n, int flags) {
    static auto real = rp::next<ssize_t (*)(int, void *, size_t, int)>("recv");
    if (!rp::t_active) return real(fd, buf, n, flags);
    if (rp::t_pending == nullptr) return 0;
    const size_t len = rp::t_pending->size() < n ? rp::t_pending->size() : n;
    std::memcpy(buf, rp::t_pending->data(), len);
    rp::t_pending = nullptr;
    return static_cast<ssize_t>(len);
}

extern "C" int poll(pollfd *fds, unsigned long nfds, int timeout) {
    static auto real = rp::next<int (*)(pollfd *, unsigned long, int)>("poll");
    if (!rp::t_active) return real(fds, nfds, timeout);
    auto *entry = reinterpret_cast<rp::PollEntry *>(fds);
    const bool ready = rp::t_pending != nullptr;
    if (nfds > 0) entry->revents = ready ? rp::kPollIn : 0;
    return ready ? 1 : 0;
}
