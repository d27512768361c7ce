#include "server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "format/wire.hpp"

namespace kplc::sim {

namespace {

// Largest chunk taken from a socket at once; a UDP request must fit one datagram.
constexpr std::size_t kReceiveChunk = kMaxRequestDataLen + 16;

std::system_error socket_error(const char *what) { return {errno, std::generic_category(), what}; }

void trace_line(const char *prefix, std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string line(prefix);
    line.reserve(line.size() + 3 * bytes.size() + 1);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) line += ' ';
        line += kDigits[bytes[i] >> 4];
        line += kDigits[bytes[i] & 15];
    }
    line += '\n';
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
}


}  // namespace

struct Server::Peer {
    int fd = -1;
    bool datagram = false;
    uint64_t id = 0;      // Event::connection
    sockaddr_in from{};   // the client's end (the sender of a datagram)
    sockaddr_in local{};  // the server's end
    std::vector<uint8_t> input;
    unsigned answered = 0;
    bool by_client = false;    // the client ended the connection
    const char *why = "";      // otherwise: why the server ends it
};

Server::Server(Plc &plc, ServerOptions options, ServerHooks hooks)
    : plc_(plc), options_(std::move(options)), hooks_(std::move(hooks)) {}

Server::~Server() { stop(); }

void Server::start() {
    if (thread_.joinable()) return;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(options_.port);
    if (inet_pton(AF_INET, options_.listen.c_str(), &addr.sin_addr) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + options_.listen);
    }
    socket_ = ::socket(AF_INET, (options_.udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
    if (socket_ < 0) throw socket_error("socket");
    const int on = 1;
    ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t len = sizeof addr;
    if (::bind(socket_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        (!options_.udp && ::listen(socket_, 8) != 0) ||
        ::getsockname(socket_, reinterpret_cast<sockaddr *>(&addr), &len) != 0 || ::pipe2(wake_, O_CLOEXEC) != 0) {
        const auto error = socket_error(options_.udp ? "bind" : "bind/listen");
        stop();
        throw error;
    }
    port_ = ntohs(addr.sin_port);
    local_ = addr;
    stopping_ = false;
    thread_ = std::thread([this] { options_.udp ? run_udp() : run_tcp(); });
}

void Server::stop() {
    if (thread_.joinable()) {
        const char byte = 1;
        if (::write(wake_[1], &byte, 1) != 1) std::perror("kplc-sim: wake");
        thread_.join();
    }
    for (int *fd : {&socket_, &wake_[0], &wake_[1]}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

bool Server::pause(unsigned ms) {
    pollfd wake{wake_[0], POLLIN, 0};
    if (::poll(&wake, 1, static_cast<int>(ms)) != 0) stopping_ = true;
    return !stopping_;
}

void Server::run_tcp() {
    std::vector<std::unique_ptr<Peer>> peers;
    std::vector<uint8_t> chunk(kReceiveChunk);
    while (!stopping_) {
        std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {socket_, POLLIN, 0}};
        for (const auto &p : peers) fds.push_back({p->fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            std::perror("kplc-sim: poll");
            break;
        }
        if (fds[0].revents != 0) break;
        // Connections are served side by side: a client that opens a new
        // connection without closing its old one is answered on both.
        for (std::size_t i = 0; i < peers.size() && !stopping_; ++i) {
            if (fds[2 + i].revents == 0) continue;
            Peer &peer = *peers[i];
            const ssize_t got = ::recv(peer.fd, chunk.data(), chunk.size(), 0);
            bool keep = got > 0;
            peer.by_client = !keep;
            if (keep) {
                peer.input.insert(peer.input.end(), chunk.begin(), chunk.begin() + got);
                keep = serve(peer);
            }
            if (!keep) {
                emit_close(peer);
                ::close(peer.fd);
                peer.fd = -1;
            }
        }
        std::erase_if(peers, [](const auto &p) { return p->fd < 0; });
        if ((fds[1].revents & POLLIN) != 0) {
            auto peer = std::make_unique<Peer>();
            socklen_t len = sizeof peer->from;
            peer->fd = ::accept4(socket_, reinterpret_cast<sockaddr *>(&peer->from), &len, SOCK_CLOEXEC);
            if (peer->fd >= 0) {
                peer->id = ++connections_;
                len = sizeof peer->local;
                if (::getsockname(peer->fd, reinterpret_cast<sockaddr *>(&peer->local), &len) != 0) peer->local = local_;
                emit(*peer, Event::Kind::Open);
                if (options_.refuse) {
                    peer->why = "refusing connections";
                    emit_close(*peer);
                    ::close(peer->fd);
                } else {
                    peers.push_back(std::move(peer));
                }
            }
        }
    }
    for (const auto &p : peers) {
        p->why = "stopping";
        emit_close(*p);
        ::close(p->fd);
    }
}

void Server::run_udp() {
    std::vector<uint8_t> datagram(kReceiveChunk);
    while (!stopping_) {
        std::array<pollfd, 2> fds{{{wake_[0], POLLIN, 0}, {socket_, POLLIN, 0}}};
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            std::perror("kplc-sim: poll");
            break;
        }
        if (fds[0].revents != 0) break;
        Peer peer;
        peer.fd = socket_;
        peer.datagram = true;
        peer.local = local_;
        socklen_t len = sizeof peer.from;
        const ssize_t got =
            ::recvfrom(socket_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&peer.from), &len);
        if (got <= 0) continue;
        peer.id = ++connections_;
        // A datagram holds whole requests; whatever follows the last one is dropped.
        peer.input.assign(datagram.begin(), datagram.begin() + got);
        serve(peer);
    }
}

bool Server::serve(Peer &peer) {
    while (peer.input.size() >= wire::kSequenceOffset) {
        // data_len and its complement frame the request. A header that fails
        // that check, or announces more than any request holds, leaves no way
        // to find the next frame: the connection is closed.
        const uint32_t data_len = *wire::data_len_of(peer.input);
        if (!wire::complement_holds(peer.input)) {
            peer.why = "malformed request: length complement does not match";
            return false;
        }
        if (data_len > kMaxRequestDataLen) {
            peer.why = "malformed request: data length too large";
            return false;
        }
        const auto size = static_cast<std::size_t>(wire::frame_length(data_len));
        if (peer.input.size() < size) return true;
        const bool keep = answer(peer, std::span<const uint8_t>(peer.input).first(size));
        peer.input.erase(peer.input.begin(), peer.input.begin() + static_cast<std::ptrdiff_t>(size));
        if (!keep || stopping_) return false;
        if (!peer.datagram && options_.close_after != 0 && ++peer.answered >= options_.close_after) {
            peer.why = "close-after";
            return false;
        }
    }
    return true;
}

void Server::emit(const Peer &peer, Event::Kind kind, std::span<const uint8_t> bytes) const {
    if (!hooks_.tap) return;
    Event event;
    event.kind = kind;
    event.connection = peer.id;
    event.udp = peer.datagram;
    event.client = peer.from;
    event.local = peer.local;
    event.bytes = bytes;
    hooks_.tap(event);
}

void Server::emit_close(const Peer &peer) const {
    if (!hooks_.tap) return;
    Event event;
    event.kind = Event::Kind::Close;
    event.connection = peer.id;
    event.client = peer.from;
    event.local = peer.local;
    event.by_client = peer.by_client;
    event.reason = peer.by_client ? "closed by the client" : peer.why;
    hooks_.tap(event);
}

bool Server::answer(Peer &peer, std::span<const uint8_t> request) {
    ++requests_;
    if (options_.trace) trace_line("> ", request);
    emit(peer, Event::Kind::Request, request);
    if (hooks_.respond) {
        if (const auto scripted = hooks_.respond(request)) return carry_out(peer, *scripted);
    }
    Answer reply;
    reply.kind = options_.silent ? Answer::Kind::Silence : Answer::Kind::Reply;
    reply.bytes = plc_.handle(request);
    reply.delay_ms = options_.delay_ms;
    if (options_.garbage) {
        for (auto &byte : reply.bytes) {
            // xorshift32: reproducible noise, no seeding needed.
            random_ ^= random_ << 13;
            random_ ^= random_ >> 17;
            random_ ^= random_ << 5;
            byte = static_cast<uint8_t>(random_);
        }
    }
    if (options_.truncate && reply.bytes.size() > *options_.truncate) reply.bytes.resize(*options_.truncate);
    if (options_.split && reply.bytes.size() >= 2) {
        reply.split_at = reply.bytes.size() / 2;
        reply.pause_ms = kSplitPauseMs;
    }
    return carry_out(peer, reply);
}

bool Server::send_part(Peer &peer, std::span<const uint8_t> part) {
    emit(peer, Event::Kind::Reply, part);
    if (peer.datagram) {
        return ::sendto(peer.fd, part.data(), part.size(), 0, reinterpret_cast<const sockaddr *>(&peer.from),
                        sizeof peer.from) == static_cast<ssize_t>(part.size());
    }
    while (!part.empty()) {
        const ssize_t sent = ::send(peer.fd, part.data(), part.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            if (sent < 0 && errno == EINTR) continue;
            return false;
        }
        part = part.subspan(static_cast<std::size_t>(sent));
    }
    return true;
}

bool Server::carry_out(Peer &peer, const Answer &answer) {
    if (answer.kind == Answer::Kind::Silence) return true;
    if (answer.delay_ms != 0 && !pause(answer.delay_ms)) return false;
    if (answer.kind == Answer::Kind::Close) {
        peer.why = "answer: close";
        return peer.datagram;  // a datagram socket has nothing to close
    }
    if (options_.trace) trace_line("< ", answer.bytes);
    if (answer.bytes.empty()) return true;
    const std::span<const uint8_t> all(answer.bytes);
    const auto gate = [&] {
        if (hooks_.before_next_segment) hooks_.before_next_segment(peer.from);
    };
    if (answer.split_at > 0 && answer.split_at < all.size()) {
        if (!send_part(peer, all.first(answer.split_at))) return true;
        if (answer.pause_ms != 0 && !pause(answer.pause_ms)) return false;
        gate();
        if (!send_part(peer, all.subspan(answer.split_at))) return true;
    } else if (!send_part(peer, all)) {
        return true;
    }
    if (!answer.stale.empty()) {
        gate();
        send_part(peer, answer.stale);
    }
    if (answer.close && !peer.datagram) {
        peer.why = "answer: close after the reply";
        return false;
    }
    return true;
}

}  // namespace kplc::sim
