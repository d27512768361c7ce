#include "trace_proxy.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "text.hpp"

namespace kplc::cli {
namespace {

constexpr uint32_t kLoopback = 0x7F000001;
constexpr int kPollMs = 100;

sockaddr_in address(uint32_t addr, uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    return sa;
}

void print(char direction, const uint8_t *data, std::size_t n) {
    std::string line(1, direction);
    line += ' ';
    char hex[4];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(hex, sizeof hex, i == 0 ? "%02X" : " %02X", data[i]);
        line += hex;
    }
    line += '\n';
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
}

bool send_all(int fd, const uint8_t *data, std::size_t n) {
    while (n > 0) {
        const ssize_t sent = ::send(fd, data, n, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        data += sent;
        n -= static_cast<std::size_t>(sent);
    }
    return true;
}

void close_fd(int &fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

bool TraceProxy::start(std::string &error) {
    listen_fd_ = ::socket(AF_INET, (udp_ ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
    sockaddr_in sa = address(kLoopback, 0);
    socklen_t len = sizeof sa;
    if (listen_fd_ < 0 || ::bind(listen_fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        (!udp_ && ::listen(listen_fd_, 4) != 0) ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&sa), &len) != 0) {
        error = cat("trace proxy: ", std::strerror(errno));
        close_fd(listen_fd_);
        return false;
    }
    port_ = ntohs(sa.sin_port);
    if (udp_) {
        upstream_fd_ = connect_plc();
        if (upstream_fd_ < 0) {
            error = cat("trace proxy: ", std::strerror(errno));
            close_fd(listen_fd_);
            return false;
        }
        thread_ = std::thread([this] { run_udp(); });
    } else {
        thread_ = std::thread([this] { run_tcp(); });
    }
    return true;
}

TraceProxy::~TraceProxy() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close_fd(listen_fd_);
    close_fd(upstream_fd_);
}

std::vector<TrafficEvent> TraceProxy::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
}

void TraceProxy::record(TrafficEvent::Kind kind, const uint8_t *data, std::size_t n, int error) {
    if (print_ && data != nullptr) print(kind == TrafficEvent::Kind::Request ? '>' : '<', data, n);
    std::lock_guard lock(mutex_);
    events_.push_back({kind, std::vector<uint8_t>(data, data + n), error});
}

int TraceProxy::connect_plc() {
    int fd = ::socket(AF_INET, (udp_ ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC | (udp_ ? 0 : SOCK_NONBLOCK), 0);
    if (fd < 0) return -1;
    const sockaddr_in sa = address(plc_addr_, plc_port_);
    if (udp_) {
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) close_fd(fd);
        return fd;
    }
    // Bounded connect, while the driver waits for its response; -1: the PLC
    // did not answer in time (recorded as errno 0).
    int err = ::connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0 ? 0 : errno;
    if (err == EINPROGRESS) {
        err = -1;
        for (int waited = 0; waited < connect_ms_ && !stop_; waited += kPollMs) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, std::min(kPollMs, connect_ms_ - waited)) <= 0) continue;
            socklen_t len = sizeof err;
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            break;
        }
    }
    if (err == 0) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        return fd;
    }
    err = std::max(err, 0);
    if (print_) {
        char addr[INET_ADDRSTRLEN] = "?";
        const in_addr ia{htonl(plc_addr_)};
        ::inet_ntop(AF_INET, &ia, addr, sizeof addr);
        std::fprintf(stderr, "trace: cannot connect to %s:%u: %s\n", addr, static_cast<unsigned>(plc_port_),
                     err != 0 ? std::strerror(err) : "no answer in time");
    }
    record(TrafficEvent::Kind::ConnectFailed, nullptr, 0, err);
    close_fd(fd);
    return fd;
}

void TraceProxy::run_tcp() {
    int driver = -1, plc = -1;
    uint8_t buf[8192];
    while (!stop_) {
        pollfd fds[3] = {{listen_fd_, POLLIN, 0}, {driver, POLLIN, 0}, {plc, POLLIN, 0}};
        if (::poll(fds, 3, kPollMs) <= 0) continue;
        if ((fds[0].revents & POLLIN) != 0) {
            // The driver opens a new connection after every failure: the new
            // one replaces the old pair.
            const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                close_fd(driver);
                close_fd(plc);
                driver = fd;
                plc = connect_plc();
                if (plc < 0) close_fd(driver);
            }
            continue;
        }
        for (int side = 1; side <= 2; ++side) {
            if (fds[side].fd < 0 || fds[side].revents == 0) continue;
            const int from = side == 1 ? driver : plc;
            const int to = side == 1 ? plc : driver;
            const ssize_t n = ::recv(from, buf, sizeof buf, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                if (print_) std::fprintf(stderr, "trace: %s closed the connection\n", side == 1 ? "driver" : "PLC");
                if (side == 2) record(TrafficEvent::Kind::Closed);
                close_fd(driver);
                close_fd(plc);
                break;
            }
            // Recorded before it is passed on, so the record is complete when the driver returns.
            record(side == 1 ? TrafficEvent::Kind::Request : TrafficEvent::Kind::Reply, buf, static_cast<std::size_t>(n));
            if (!send_all(to, buf, static_cast<std::size_t>(n))) {
                close_fd(driver);
                close_fd(plc);
                break;
            }
        }
    }
    close_fd(driver);
    close_fd(plc);
}

void TraceProxy::run_udp() {
    uint8_t buf[65536];
    sockaddr_in driver{};
    socklen_t driver_len = 0;
    while (!stop_) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {upstream_fd_, POLLIN, 0}};
        if (::poll(fds, 2, kPollMs) <= 0) continue;
        if ((fds[0].revents & POLLIN) != 0) {
            sockaddr_in from{};
            socklen_t from_len = sizeof from;
            const ssize_t n =
                ::recvfrom(listen_fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
            if (n >= 0) {
                driver = from;
                driver_len = from_len;
                record(TrafficEvent::Kind::Request, buf, static_cast<std::size_t>(n));
                (void)::send(upstream_fd_, buf, static_cast<std::size_t>(n), 0);
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            const ssize_t n = ::recv(upstream_fd_, buf, sizeof buf, 0);
            // A datagram to a closed port comes back as an ICMP error on the next receive.
            if (n < 0 && errno == ECONNREFUSED) record(TrafficEvent::Kind::ConnectFailed, nullptr, 0, errno);
            if (n >= 0) {
                record(TrafficEvent::Kind::Reply, buf, static_cast<std::size_t>(n));
                if (driver_len != 0)
                    (void)::sendto(listen_fd_, buf, static_cast<std::size_t>(n), 0,
                                   reinterpret_cast<const sockaddr *>(&driver), driver_len);
            }
        }
    }
}

}  // namespace kplc::cli
