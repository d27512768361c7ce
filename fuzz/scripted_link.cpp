#include "scripted_link.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "format/frame_limits.hpp"
#include "state/process_state.hpp"

namespace kplc::fuzz {

namespace {

ScriptedLink *g_active = nullptr;

}  // namespace

ScriptedLink::ScriptedLink(PLC_DRV_INIT_SETTINGS &settings, std::vector<std::span<const uint8_t>> replies)
    : replies_(std::move(replies)) {
    open(settings);
}

ScriptedLink::ScriptedLink(PLC_DRV_INIT_SETTINGS &settings, Responder answer) : answer_(std::move(answer)) {
    open(settings);
}

void ScriptedLink::open(PLC_DRV_INIT_SETTINGS &settings) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::abort();
    if (::dup2(pair[0], kDriverFd) != kDriverFd) std::abort();
    ::close(pair[0]);
    peer_ = pair[1];
    // Replies larger than the pair's buffer are cut rather than block the run.
    ::fcntl(peer_, F_SETFL, ::fcntl(peer_, F_GETFL) | O_NONBLOCK);
    settings.serial_handle = kDriverFd;
    kplc::state().link.up = true;
    g_active = this;
}

ScriptedLink::~ScriptedLink() {
    g_active = nullptr;
    if (::fcntl(kDriverFd, F_GETFD) != -1) ::close(kDriverFd);
    ::close(peer_);
}

void ScriptedLink::on_request() {
    ++requests_;
    // Take the request off the pair (all of it is there: the send into a
    // local pair completes at once) so that the pair's buffer never fills.
    std::vector<uint8_t> request;
    std::array<uint8_t, proto::kReceiveArea> chunk;
    ssize_t got;
    while ((got = ::recv(peer_, chunk.data(), chunk.size(), MSG_DONTWAIT)) > 0)
        request.insert(request.end(), chunk.begin(), chunk.begin() + got);
    if (answer_) {
        const auto bytes = answer_(request);
        reply(bytes);
        return;
    }
    reply(next_ < replies_.size() ? replies_[next_++] : std::span<const uint8_t>());
}

void ScriptedLink::reply(std::span<const uint8_t> bytes) {
    // No reply (the script is used up, or an empty entry) stands for the PLC
    // closing its side: the driver reads an empty response at once.
    if (bytes.empty()) {
        ::shutdown(peer_, SHUT_WR);
        return;
    }
    (void)::send(peer_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

bool descriptor_leaked() {
    static int mark = -1;
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return true;
    ::close(fd);
    if (mark < 0 || fd < mark) mark = fd;
    if (fd == mark) return false;
    // Something holds the mark's number. The driver opens only sockets; a
    // file opened for a moment by another thread of the engine is no leak.
    struct stat st{};
    return ::fstat(mark, &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace kplc::fuzz

// Every send of the process passes here. The request goes out unchanged
// through the system call; a request on the scripted link is then answered.
extern "C" ssize_t send(int fd, const void *buf, size_t len, int flags) {
    const long sent = ::syscall(SYS_sendto, fd, buf, len, flags, nullptr, 0);
    if (fd == kplc::fuzz::ScriptedLink::kDriverFd && kplc::fuzz::g_active != nullptr && sent >= 0)
        kplc::fuzz::g_active->on_request();
    return static_cast<ssize_t>(sent);
}
