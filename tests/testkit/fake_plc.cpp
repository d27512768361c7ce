// The scripted fake PLC: the simulator's server with a responder hook that
// plays a script, a tap that counts what went out, and a gate that holds a
// second segment back until the driver has read the first.
#include "testkit/fake_plc.hpp"

#include <dirent.h>
#include <sys/ioctl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "plc.hpp"
#include "server.hpp"

namespace kplc::testkit {

// ---------------------------------------------------------------- hex helpers

Bytes hex(std::string_view text) {
    std::string digits;
    for (char ch : text)
        if (ch != ' ' && ch != '\t' && ch != '\n' && ch != '\r') digits.push_back(ch);
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("hex: not pairs of hex digits in \"" + std::string(text) + "\"");
    Bytes out(digits.size() / 2);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    return out;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const uint8_t b : bytes) out += {' ', kDigits[b >> 4], kDigits[b & 0x0F]};
    return out.empty() ? out : out.substr(1);
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
        const uint8_t entry[] = {0, 0, static_cast<uint8_t>(name_bytes + 2), 0, id};  // 2 bytes, L, 1 byte, id
        for (const uint8_t b : entry) body.push_back(b);
        for (const char16_t unit : name)
            body.push_back(static_cast<uint8_t>(unit >> 8)), body.push_back(static_cast<uint8_t>(unit));
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

Bytes pattern(std::size_t n, uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

Bytes ack(std::size_t size, uint8_t status) {
    Bytes frame(size, 0);
    put_header(frame, 0x1E01);
    if (frame.size() > 11) frame[11] = status;
    return frame;
}

// ---------------------------------------------------------------- the server

namespace {

// How long the gate waits for the driver to take a segment off its socket
// before the next one goes out anyway (the driver may have given up).
constexpr auto kConsumeLimit = 2000ms;

// This process's stream socket whose local address is `local` (and, when
// given, whose peer is `peer`), or -1. The fake runs inside the test process,
// so it can reach the driver's end of a connection as well as its own.
int stream_socket_at(const sockaddr_in &local, const sockaddr_in *peer = nullptr) {
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int found = -1;
    const auto same = [](const sockaddr_in &a, const sockaddr_in &b) {
        return a.sin_family == AF_INET && a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
    };
    while (dirent *entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        sockaddr_in mine{}, theirs{};
        socklen_t len = sizeof mine, plen = sizeof theirs;
        int type = 0;
        socklen_t tlen = sizeof type;
        if (fd > 2 && fd != dirfd(dir) && getsockname(fd, reinterpret_cast<sockaddr *>(&mine), &len) == 0 &&
            same(mine, local) && getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &tlen) == 0 && type == SOCK_STREAM &&
            (peer == nullptr ||
             (getpeername(fd, reinterpret_cast<sockaddr *>(&theirs), &plen) == 0 && same(theirs, *peer)))) {
            found = fd;
            break;
        }
    }
    closedir(dir);
    return found;
}

// Bytes waiting unread at the driver's end of a connection (its local address
// is `client`), or nullopt when it is gone: the gate sends the next segment
// only once the driver has read what came before, so the two never merge.
std::optional<int> unread_at(const sockaddr_in &client) {
    const int fd = stream_socket_at(client);
    int unread = 0;
    if (fd < 0 || ioctl(fd, FIONREAD, &unread) != 0) return std::nullopt;
    return unread;
}

sim::Answer make(sim::Answer::Kind kind, Bytes bytes = {}, std::size_t split_at = 0, unsigned pause_ms = 0,
                 Bytes stale = {}) {
    sim::Answer a;
    a.kind = kind, a.bytes = std::move(bytes), a.split_at = split_at, a.pause_ms = pause_ms;
    a.stale = std::move(stale);
    return a;
}

// Segments the server sends for an answer (what the tap will see go out).
std::size_t segments(const sim::Answer &a) {
    if (a.kind != sim::Answer::Kind::Reply || a.bytes.empty()) return 0;
    return (a.split_at > 0 && a.split_at < a.bytes.size() ? 2 : 1) + (a.stale.empty() ? 0 : 1);
}

}  // namespace

struct FakePlc::Impl {
    sim::Plc plc;
    bool plc_answers;  // a tag file was given: the Plc takes over after the script
    std::optional<sim::Server> server;
    mutable std::mutex mu;
    mutable std::condition_variable cv;
    std::deque<sim::Answer> script;
    std::vector<Bytes> received;
    std::size_t expected_segments = 0, sent_segments = 0;
    // Segments of the current answer sent so far, and the size of the last
    // one that trailed an answer's first (stale bytes, the rest of a split).
    std::size_t answer_sent = 0, trailing_size = 0;
    sockaddr_in trailing_client{};

    Impl(Transport transport, std::string_view tags) : plc(tags), plc_answers(!tags.empty()) {
        sim::ServerHooks hooks;
        hooks.respond = [this](std::span<const uint8_t> request) -> std::optional<sim::Answer> {
            std::lock_guard lock(mu);
            received.emplace_back(request.begin(), request.end());
            cv.notify_all();
            std::optional<sim::Answer> step;
            if (!script.empty()) {
                step = std::move(script.front());
                script.pop_front();
                // A reply step without bytes stands for the simulated PLC's own answer.
                if (plc_answers && step->kind == sim::Answer::Kind::Reply && step->bytes.empty())
                    step->bytes = plc.handle(request);
            } else if (!plc_answers) {
                step = make(sim::Answer::Kind::Silence);
            }
            expected_segments += step ? segments(*step) : 1;
            answer_sent = trailing_size = 0;
            return step;
        };
        hooks.tap = [this](const sim::Event &e) {
            // Every segment goes out at once: without this a small segment
            // right after a reply (stale bytes, the rest of a split one) waits
            // for the driver's delayed acknowledgement, some 40 ms, and could
            // arrive after the driver's next drain although it counts as sent.
            if (e.kind == sim::Event::Kind::Open && !e.udp) {
                const int one = 1, fd = stream_socket_at(e.local, &e.client);
                if (fd >= 0) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            }
            if (e.kind != sim::Event::Kind::Reply) return;
            std::lock_guard lock(mu);
            ++sent_segments;
            if (answer_sent++ > 0) trailing_size = e.bytes.size(), trailing_client = e.client;
            cv.notify_all();
        };
        hooks.before_next_segment = [](const sockaddr_in &client) {
            const auto deadline = std::chrono::steady_clock::now() + kConsumeLimit;
            for (auto unread = unread_at(client); unread && *unread > 0 && std::chrono::steady_clock::now() < deadline;
                 unread = unread_at(client))
                std::this_thread::sleep_for(1ms);
        };
        server.emplace(plc, sim::ServerOptions{.udp = transport == Transport::Udp}, std::move(hooks));
        server->start();
    }

    FakePlc &push(FakePlc &self, sim::Answer a) {
        std::lock_guard lock(mu);
        script.push_back(std::move(a));
        return self;
    }
};

FakePlc::FakePlc(Transport transport, std::string_view tags) : impl_(std::make_unique<Impl>(transport, tags)) {}
FakePlc::~FakePlc() { impl_->server->stop(); }

uint16_t FakePlc::port() const { return impl_->server->port(); }

uint16_t FakePlc::closed_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(kLoopback)}, .sin_zero = {}};
    socklen_t len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

using Kind = sim::Answer::Kind;
FakePlc &FakePlc::reply(Bytes bytes) { return impl_->push(*this, make(Kind::Reply, std::move(bytes))); }
FakePlc &FakePlc::silence() { return impl_->push(*this, make(Kind::Silence)); }
FakePlc &FakePlc::close() { return impl_->push(*this, make(Kind::Close)); }
FakePlc &FakePlc::split(Bytes bytes, std::size_t first, std::chrono::milliseconds pause) {
    return impl_->push(*this, make(Kind::Reply, std::move(bytes), first, static_cast<unsigned>(pause.count())));
}
FakePlc &FakePlc::with_stale(Bytes bytes, Bytes stale) {
    return impl_->push(*this, make(Kind::Reply, std::move(bytes), 0, 0, std::move(stale)));
}

void FakePlc::forget_requests() {
    std::lock_guard lock(impl_->mu);
    std::vector<Bytes>().swap(impl_->received);  // its memory too
}

std::vector<Bytes> FakePlc::requests() const {
    std::lock_guard lock(impl_->mu);
    return impl_->received;
}

std::size_t FakePlc::connections() const { return impl_->server->connections(); }

bool FakePlc::wait_for_requests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mu);
    return impl_->cv.wait_for(lock, timeout, [&] { return impl_->received.size() >= count; });
}

bool FakePlc::wait_idle(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mu);
    if (!impl_->cv.wait_for(lock, timeout, [&] { return impl_->sent_segments >= impl_->expected_segments; }))
        return false;
    // Counted is not yet arrived: the tap sees a segment just before it is
    // sent. Bytes that trailed the last answer must be queued at the driver's
    // end (which reads nothing meanwhile: the driver runs on the caller's thread).
    const std::size_t size = impl_->trailing_size;
    const sockaddr_in client = impl_->trailing_client;
    lock.unlock();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (auto unread = unread_at(client); size > 0 && unread && static_cast<std::size_t>(*unread) < size &&
                                          std::chrono::steady_clock::now() < deadline;
         unread = unread_at(client))
        std::this_thread::sleep_for(1ms);
    return true;
}

}  // namespace kplc::testkit
