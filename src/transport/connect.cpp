// Opening the socket to the PLC: the driver's blocking connect with optional
// binding to a local interface, and the framework's non-blocking variant.
#include "transport/connect.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "transport/address_text.hpp"
#include "transport/poll_wait.hpp"

namespace {

using kplc::transport::address_text;

constexpr unsigned char kStreamMode = 'U';
// The send time-out is (timeout2 mod 10) + 3 seconds; it also bounds the connect.
constexpr unsigned kSendTimeoutBase = 3;
constexpr unsigned kSendTimeoutSpan = 10;
// After an unreachable network the link is not retried for half a second.
constexpr useconds_t kUnreachablePause = 500000;
// SetupTCPComm gives the PLC 30 ms to accept and sends with a 50 ms time-out.
constexpr int kQuickConnectMs = 30;
constexpr suseconds_t kQuickSendTimeoutUs = 50000;

sockaddr_in server_address(const char *text, uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(text);
    addr.sin_port = htons(port);
    return addr;
}

// Interface names by selector 1, 2, 3.
const char *interface_name(uint8_t selector) {
    switch (selector) {
        case 1: return "eth0";
        case 2: return "eth1";
        case 3: return "wlan0";
        default: return nullptr;
    }
}

// A blocking connect that gives up after `bound_ms`. The send time-out bounds
// a blocking connect on Linux, but not everywhere; connecting without blocking
// and waiting for completion ourselves gives the same bound on every system.
// The descriptor is blocking again afterwards. Returns 0, or -1 with errno set
// (ETIMEDOUT when the bound passed).
int connect_bounded(int sock, const sockaddr_in &server, int64_t bound_ms) {
    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        // Cannot go non-blocking: fall back on the send time-out to bound it.
        return ::connect(sock, reinterpret_cast<const sockaddr *>(&server), sizeof server);
    }
    int rc = ::connect(sock, reinterpret_cast<const sockaddr *>(&server), sizeof server);
    int err = rc == 0 ? 0 : errno;
    if (rc != 0 && err == EINPROGRESS) {
        const int ready = kplc::transport::wait_writable(sock, bound_ms);
        if (ready == 0) {
            err = ETIMEDOUT;
        } else if (ready < 0) {
            err = errno;
        } else {
            socklen_t len = sizeof err;
            if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
        }
        rc = err == 0 ? 0 : -1;
    }
    fcntl(sock, F_SETFL, flags);
    errno = err;
    return rc;
}

}  // namespace

namespace kplc::transport {

int connect(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings) noexcept {
    const auto text = address_text(static_cast<unsigned int>(tcp_settings->ipaddr));
    // The dotted text always resolves to itself; this only refuses a text the
    // resolver does not accept.
    if (::gethostbyname(text.data()) == nullptr) {
        std::puts("error resolving local host\r");
        return -1;
    }
    const sockaddr_in server = server_address(text.data(), static_cast<uint16_t>(tcp_settings->port));
    const int kind = tcp_settings->mode == kStreamMode ? SOCK_STREAM : SOCK_DGRAM;

    // Close-on-exec: the link is the driver's own; a program the host runtime
    // starts must not inherit (and keep open) the PLC connection.
    const int sock = ::socket(AF_INET, kind | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        std::puts("socket error\r");
        return -1;
    }

    sockaddr_in client{};
    const int local = local_interface_address(sock, tcp_settings, &client);
    if (local < 0) return -1;  // the lookup has closed the socket
    if (local == 0 && ::bind(sock, reinterpret_cast<const sockaddr *>(&client), sizeof client) != 0) {
        std::perror("Bind");
        ::close(sock);
        return -1;
    }

    const unsigned send_timeout_s = settings->timeout2 % kSendTimeoutSpan + kSendTimeoutBase;
    const timeval send_timeout{static_cast<time_t>(send_timeout_s), 0};
    const int reuse = 1;
    (void)::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    (void)::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    if (connect_bounded(sock, server, static_cast<int64_t>(send_timeout_s) * 1000) != 0) {
        const int err = errno;
        ::close(sock);
        if (err == ENETUNREACH) {
            std::puts("Network is unreachable\r");
            usleep(kUnreachablePause);
        }
        std::printf("connect to %s failed\r\n", text.data());
        return -1;
    }
    settings->serial_handle = sock;
    return 0;
}

int local_interface_address(int sockfd, PLC_TCP_INIT_PARAMETERS *serial_settings, sockaddr_in *sin) noexcept {
    const char *name = interface_name(serial_settings->stop_bits);
    if (name == nullptr) {
        std::puts("no matching relative net\r");
        return 1;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(sockfd, SIOCGIFADDR, &request) != 0) {
        ::close(sockfd);
        std::puts("get ip command error\r");
        return -1;
    }
    // SIOCGIFADDR answers with an AF_INET address; port 0 lets the system choose one.
    std::memcpy(sin, &request.ifr_addr, sizeof *sin);
    sin->sin_port = 0;
    std::printf("ipaddr=%s\r\n", inet_ntoa(sin->sin_addr));
    std::printf("match %s ip success\r\n", name);
    return 0;
}

int connect_quick(PLC_DRV_INIT_SETTINGS *settings, unsigned int ip_addr, int port) noexcept {
    const auto text = address_text(ip_addr);
    std::printf("server ip = %s\r\n", text.data());
    const sockaddr_in server = server_address(text.data(), static_cast<uint16_t>(port));

    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Without a socket the connect below could only fail; stop here instead.
    if (sock < 0) return -1;
    const int flags = fcntl(sock, F_GETFL);
    fcntl(sock, F_SETFL, flags | O_NONBLOCK);

    // Linger 0: closing this socket resets the connection at once.
    const linger no_linger{1, 0};
    const timeval send_timeout{0, kQuickSendTimeoutUs};
    const int reuse = 1;
    (void)::setsockopt(sock, SOL_SOCKET, SO_LINGER, &no_linger, sizeof no_linger);
    (void)::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    (void)::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    if (::connect(sock, reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0) {
        if (errno != EINPROGRESS) {
            ::close(sock);
            return -1;
        }
        // Connected or failed: either way the socket becomes writable.
        const int ready = kplc::transport::wait_writable(sock, kQuickConnectMs);
        if (ready < 0) {
            std::puts("select error\r");
            ::close(sock);
            return -1;
        }
        if (ready == 0) {
            std::puts("select time out \r");
            ::close(sock);
            return -1;
        }
        int err = 0;
        socklen_t len = sizeof err;
        if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
            std::puts("getsockopt error\r");
            ::close(sock);
            return -1;
        }
        if (err != 0) {
            ::close(sock);
            return -1;
        }
    }
    fcntl(sock, F_SETFL, flags);
    settings->serial_handle = sock;
    return 0;
}

}  // namespace kplc::transport
