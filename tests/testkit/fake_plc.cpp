// The scripted fake PLC: one server thread per instance, serving TCP
// connections (or UDP datagrams) on 127.0.0.1 and answering each request with
// the next script step.
#include "testkit/fake_plc.hpp"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

namespace kplc::testkit {

// ---------------------------------------------------------------- hex helpers

Bytes hex(std::string_view text) {
    Bytes out;
    int high = -1;
    for (char ch : text) {
        if (ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r') continue;
        int v;
        if (ch >= '0' && ch <= '9') v = ch - '0';
        else if (ch >= 'a' && ch <= 'f') v = ch - 'a' + 10;
        else if (ch >= 'A' && ch <= 'F') v = ch - 'A' + 10;
        else throw std::invalid_argument("hex: not a hex digit in \"" + std::string(text) + "\"");
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("hex: odd number of digits in \"" + std::string(text) + "\"");
    return out;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out.push_back(' ');
        out.push_back(kDigits[bytes[i] >> 4]);
        out.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return out;
}

// ---------------------------------------------------------------- builders

namespace {

constexpr std::size_t kHeader = 14;

// A response header as a PLC would send it: data_len, its complement, a zero
// sequence number, the command and two zero status bytes. `size` is the whole
// frame; only the header bytes that fit are written.
void put_header(Bytes &frame, uint16_t command) {
    const auto data_len = static_cast<uint32_t>(frame.size() >= 10 ? frame.size() - 10 : 0);
    uint8_t header[kHeader] = {};
    for (int i = 0; i < 4; ++i) {
        header[i] = static_cast<uint8_t>(data_len >> (24 - 8 * i));
        header[i + 4] = static_cast<uint8_t>(~header[i]);
    }
    header[10] = static_cast<uint8_t>(command >> 8);
    header[11] = static_cast<uint8_t>(command);
    std::copy_n(header, std::min(frame.size(), kHeader), frame.begin());
}

Bytes framed(uint16_t command, const Bytes &body) {
    // Sized once and filled in place (an insert here trips a false -Warray-bounds in GCC 12 at -O2).
    Bytes frame(kHeader + body.size());
    std::copy(body.begin(), body.end(), frame.begin() + static_cast<std::ptrdiff_t>(kHeader));
    put_header(frame, command);
    return frame;
}

}  // namespace

Bytes catalogue_first() { return framed(0x0C2C, Bytes(4, 0)); }

Bytes catalogue(const std::vector<std::pair<uint8_t, std::u16string>> &programs) {
    if (programs.size() > 255) throw std::invalid_argument("catalogue: at most 255 programs");
    Bytes body;
    body.push_back(static_cast<uint8_t>(programs.size()));
    for (const auto &[id, name] : programs) {
        const std::size_t name_bytes = 2 * name.size();
        if (name_bytes + 2 > 255) throw std::invalid_argument("catalogue: name too long for one length byte");
        body.push_back(0);
        body.push_back(0);
        body.push_back(static_cast<uint8_t>(name_bytes + 2));  // L
        body.push_back(0);
        body.push_back(id);
        for (char16_t unit : name) {
            body.push_back(static_cast<uint8_t>(unit >> 8));
            body.push_back(static_cast<uint8_t>(unit));
        }
        body.push_back(0);
    }
    return framed(0x0C25, body);
}

Bytes resolve(const std::vector<ResolveItem> &items) {
    if (items.empty()) return framed(0x0C28, {});
    // Item k starts at c_k; c_{k+1} = c_k + 24 + 4 g_k. The last item's
    // extension count sits at c_last + 40, which fixes the length.
    std::vector<std::size_t> starts;
    std::size_t c = 0;
    for (const auto &it : items) {
        starts.push_back(c);
        c += 24 + 4 * static_cast<std::size_t>(it.extensions);
    }
    const std::size_t total = starts.back() + 41 + 4 * static_cast<std::size_t>(items.back().extensions);
    Bytes frame(total, 0);
    put_header(frame, 0x0C28);
    for (std::size_t k = 0; k < items.size(); ++k) {
        const std::size_t at = starts[k];
        const ResolveItem &it = items[k];
        frame[at + 21] = it.area;
        std::copy(it.location.begin(), it.location.end(), frame.begin() + static_cast<std::ptrdiff_t>(at + 22));
        frame[at + 29] = it.byte29;
        frame[at + 30] = it.byte30;
        frame[at + 40] = it.extensions;
    }
    return frame;
}

Bytes values(const Bytes &payload) { return framed(0x1E09, payload); }

Bytes ack(std::size_t size, uint8_t status) {
    Bytes frame(size, 0);
    put_header(frame, 0x1E01);
    if (frame.size() > 11) frame[11] = status;
    return frame;
}

// ---------------------------------------------------------------- the server

namespace {

// One script step. A plain record rather than a variant: GCC 12 at -O2 with
// the sanitizers reports variant members as maybe-uninitialized.
struct Step {
    enum class Kind { Reply, Silence, Close, Split, Stale } kind = Kind::Silence;
    Bytes bytes;                         // Reply, Split, Stale: the answer
    std::size_t first = 0;               // Split: bytes in the first segment
    std::chrono::milliseconds pause{0};  // Split: pause before the second
    Bytes stale;                         // Stale: sent unasked after the answer
};

Step make_step(Step::Kind kind, Bytes bytes = {}, std::size_t first = 0, std::chrono::milliseconds pause = 0ms,
               Bytes stale = {}) {
    Step step;
    step.kind = kind;
    step.bytes = std::move(bytes);
    step.first = first;
    step.pause = pause;
    step.stale = std::move(stale);
    return step;
}

// How long the server waits for the driver to take a segment off its socket
// before it sends the next one anyway (the driver may have given up).
constexpr auto kConsumeLimit = 2000ms;
// A data_len this large is not a frame: the buffered bytes are taken as one request.
constexpr std::size_t kMaxFrame = 1u << 20;

struct Connection {
    int fd;
    sockaddr_in peer;
    Bytes pending;
};

// Finds this process's socket whose local address is `addr` (the driver's end
// of a connection) and returns how many bytes wait unread in it, or nullopt
// when there is no such socket any more. The fake runs inside the test process,
// so it can see whether the driver has read a segment before it sends the next:
// that keeps split replies and stale input from merging into one read.
std::optional<int> unread_at(const sockaddr_in &addr) {
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return std::nullopt;
    std::optional<int> result;
    while (dirent *entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (fd <= 2 || fd == dirfd(dir)) continue;
        sockaddr_in local{};
        socklen_t len = sizeof local;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len) != 0 || local.sin_family != AF_INET) continue;
        int type = 0;
        socklen_t tlen = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &tlen) != 0 || type != SOCK_STREAM) continue;
        if (local.sin_port != addr.sin_port || local.sin_addr.s_addr != addr.sin_addr.s_addr) continue;
        int unread = 0;
        if (ioctl(fd, FIONREAD, &unread) == 0) {
            result = unread;
            break;
        }
    }
    closedir(dir);
    return result;
}

}  // namespace

struct FakePlc::Impl {
    Transport transport;
    int listen_fd = -1;  // TCP listener, or the UDP socket
    int wake_fd = -1;    // eventfd: tells the thread to stop
    uint16_t bound_port = 0;
    std::thread thread;

    mutable std::mutex mu;
    mutable std::condition_variable cv;
    std::deque<Step> script;
    std::function<Bytes(std::span<const uint8_t>)> fallback;
    std::vector<Bytes> received;
    std::size_t accepted = 0;
    std::size_t answered = 0;  // requests whose step has been carried out completely

    std::vector<Connection> conns;  // server thread only

    explicit Impl(Transport t) : transport(t) {
        const int type = t == Transport::Tcp ? SOCK_STREAM : SOCK_DGRAM;
        listen_fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        if (listen_fd < 0) throw std::runtime_error("fake PLC: socket failed");
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(kLoopback);
        addr.sin_port = 0;
        if (::bind(listen_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
            (t == Transport::Tcp && ::listen(listen_fd, 16) != 0)) {
            ::close(listen_fd);
            throw std::runtime_error("fake PLC: bind/listen failed");
        }
        socklen_t len = sizeof addr;
        getsockname(listen_fd, reinterpret_cast<sockaddr *>(&addr), &len);
        bound_port = ntohs(addr.sin_port);
        wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_fd < 0) {
            ::close(listen_fd);
            throw std::runtime_error("fake PLC: eventfd failed");
        }
        thread = std::thread([this] { run(); });
    }

    ~Impl() {
        const uint64_t one = 1;
        (void)!::write(wake_fd, &one, sizeof one);
        thread.join();
        for (auto &c : conns) ::close(c.fd);
        ::close(listen_fd);
        ::close(wake_fd);
    }

    bool stopping() const {
        pollfd p{wake_fd, POLLIN, 0};
        return ::poll(&p, 1, 0) > 0;
    }

    // Sleeps up to `d`; false when the fake is being shut down.
    bool pause_for(std::chrono::milliseconds d) const {
        pollfd p{wake_fd, POLLIN, 0};
        return ::poll(&p, 1, static_cast<int>(d.count())) == 0;
    }

    // Waits until the driver's end of `c` has no unread bytes (or is gone).
    void wait_consumed(const Connection &c) const {
        const auto deadline = std::chrono::steady_clock::now() + kConsumeLimit;
        while (std::chrono::steady_clock::now() < deadline) {
            const auto unread = unread_at(c.peer);
            if (!unread || *unread == 0) return;
            if (!pause_for(1ms)) return;
        }
    }

    void send_all(int fd, std::span<const uint8_t> data, const sockaddr_in *to) const {
        if (transport == Transport::Udp) {
            ::sendto(fd, data.data(), data.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(to), sizeof *to);
            return;
        }
        std::size_t off = 0;
        while (off < data.size()) {
            const ssize_t n = ::send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
            if (n <= 0) return;  // the driver has gone; nothing to report
            off += static_cast<std::size_t>(n);
        }
    }

    // Takes the next step for a request just received (recording the request).
    Step next_step(Bytes request) {
        std::unique_lock lock(mu);
        Step step;
        if (!script.empty()) {
            step = std::move(script.front());
            script.pop_front();
        } else if (fallback) {
            auto handler = fallback;
            lock.unlock();
            Bytes answer = handler(request);
            lock.lock();
            if (!answer.empty()) step = make_step(Step::Kind::Reply, std::move(answer));
        }
        received.push_back(std::move(request));
        cv.notify_all();
        return step;
    }

    // Answers one request. Returns false when the connection is to be closed.
    bool answer(Connection *c, int fd, const sockaddr_in *to, Bytes request) {
        const bool keep = carry_out(c, fd, to, next_step(std::move(request)));
        std::lock_guard lock(mu);
        ++answered;
        cv.notify_all();
        return keep;
    }

    bool carry_out(Connection *c, int fd, const sockaddr_in *to, const Step &step) {
        switch (step.kind) {
            case Step::Kind::Silence:
                break;
            case Step::Kind::Reply:
                send_all(fd, step.bytes, to);
                break;
            case Step::Kind::Close:
                return transport == Transport::Udp;  // a datagram socket has nothing to close
            case Step::Kind::Split: {
                const std::size_t first = std::min(step.first, step.bytes.size());
                send_all(fd, std::span<const uint8_t>(step.bytes).first(first), to);
                if (!pause_for(step.pause)) return true;
                if (c != nullptr) wait_consumed(*c);
                send_all(fd, std::span<const uint8_t>(step.bytes).subspan(first), to);
                break;
            }
            case Step::Kind::Stale:
                send_all(fd, step.bytes, to);
                if (c != nullptr) wait_consumed(*c);
                send_all(fd, step.stale, to);
                break;
        }
        return true;
    }

    // Cuts complete frames (10 + data_len bytes) off the connection's buffer.
    bool serve_pending(Connection &c) {
        while (c.pending.size() >= 4) {
            const uint32_t data_len = static_cast<uint32_t>(c.pending[0]) << 24 |
                                      static_cast<uint32_t>(c.pending[1]) << 16 |
                                      static_cast<uint32_t>(c.pending[2]) << 8 | c.pending[3];
            std::size_t total = 10 + static_cast<std::size_t>(data_len);
            if (total > kMaxFrame) total = c.pending.size();
            if (c.pending.size() < total) break;
            Bytes request(c.pending.begin(), c.pending.begin() + static_cast<std::ptrdiff_t>(total));
            c.pending.erase(c.pending.begin(), c.pending.begin() + static_cast<std::ptrdiff_t>(total));
            if (!answer(&c, c.fd, nullptr, std::move(request))) return false;
        }
        return true;
    }

    void run() {
        std::vector<pollfd> fds;
        uint8_t buf[65536];
        while (true) {
            fds.clear();
            fds.push_back({wake_fd, POLLIN, 0});
            fds.push_back({listen_fd, POLLIN, 0});
            for (const auto &c : conns) fds.push_back({c.fd, POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[0].revents != 0) return;

            if (fds[1].revents & POLLIN) {
                if (transport == Transport::Tcp) {
                    sockaddr_in peer{};
                    socklen_t len = sizeof peer;
                    const int fd = ::accept4(listen_fd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC);
                    if (fd >= 0) {
                        conns.push_back({fd, peer, {}});
                        std::lock_guard lock(mu);
                        ++accepted;
                    }
                } else {
                    sockaddr_in peer{};
                    socklen_t len = sizeof peer;
                    const ssize_t n =
                        ::recvfrom(listen_fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&peer), &len);
                    if (n >= 0) answer(nullptr, listen_fd, &peer, Bytes(buf, buf + n));
                }
            }

            // Connections are served in poll order; closed ones are dropped afterwards.
            std::vector<int> closing;
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents == 0) continue;
                auto it = std::find_if(conns.begin(), conns.end(), [&](const Connection &c) { return c.fd == fds[i].fd; });
                if (it == conns.end()) continue;
                const ssize_t n = ::recv(it->fd, buf, sizeof buf, 0);
                if (n <= 0) {
                    closing.push_back(it->fd);
                    continue;
                }
                it->pending.insert(it->pending.end(), buf, buf + n);
                if (!serve_pending(*it)) closing.push_back(it->fd);
                if (stopping()) return;
            }
            for (int fd : closing) {
                auto it = std::find_if(conns.begin(), conns.end(), [&](const Connection &c) { return c.fd == fd; });
                if (it != conns.end()) {
                    ::close(it->fd);
                    conns.erase(it);
                }
            }
        }
    }
};

FakePlc::FakePlc(Transport transport) : impl_(std::make_unique<Impl>(transport)) {}
FakePlc::~FakePlc() = default;

uint16_t FakePlc::port() const { return impl_->bound_port; }

FakePlc &FakePlc::reply(Bytes bytes) {
    std::lock_guard lock(impl_->mu);
    impl_->script.push_back(make_step(Step::Kind::Reply, std::move(bytes)));
    return *this;
}

FakePlc &FakePlc::silence() {
    std::lock_guard lock(impl_->mu);
    impl_->script.push_back(make_step(Step::Kind::Silence));
    return *this;
}

FakePlc &FakePlc::close() {
    std::lock_guard lock(impl_->mu);
    impl_->script.push_back(make_step(Step::Kind::Close));
    return *this;
}

FakePlc &FakePlc::split(Bytes bytes, std::size_t first, std::chrono::milliseconds pause) {
    std::lock_guard lock(impl_->mu);
    impl_->script.push_back(make_step(Step::Kind::Split, std::move(bytes), first, pause));
    return *this;
}

FakePlc &FakePlc::with_stale(Bytes bytes, Bytes stale) {
    std::lock_guard lock(impl_->mu);
    impl_->script.push_back(make_step(Step::Kind::Stale, std::move(bytes), 0, 0ms, std::move(stale)));
    return *this;
}

FakePlc &FakePlc::otherwise(std::function<Bytes(std::span<const uint8_t>)> handler) {
    std::lock_guard lock(impl_->mu);
    impl_->fallback = std::move(handler);
    return *this;
}

std::vector<Bytes> FakePlc::requests() const {
    std::lock_guard lock(impl_->mu);
    return impl_->received;
}

std::size_t FakePlc::connections() const {
    std::lock_guard lock(impl_->mu);
    return impl_->accepted;
}

bool FakePlc::wait_for_requests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mu);
    return impl_->cv.wait_for(lock, timeout, [&] { return impl_->received.size() >= count; });
}

bool FakePlc::wait_idle(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mu);
    return impl_->cv.wait_for(lock, timeout, [&] { return impl_->answered == impl_->received.size(); });
}

std::size_t FakePlc::pending_steps() const {
    std::lock_guard lock(impl_->mu);
    return impl_->script.size();
}

}  // namespace kplc::testkit
