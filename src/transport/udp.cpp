// Datagram set-up: the PLC's socket address and an unconnected datagram socket.
#include "transport/connect.hpp"

#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "transport/address_text.hpp"

namespace kplc::transport {

int datagram_server(PLC_TCP_INIT_PARAMETERS *tcp_settings, sockaddr_in *server_ip) noexcept {
    const auto text = address_text(static_cast<unsigned int>(tcp_settings->ipaddr));
    const auto *host = ::gethostbyname(text.data());
    if (host == nullptr || host->h_addr_list[0] == nullptr) {
        std::puts("error resolving local host\r");
        return -1;
    }
    *server_ip = sockaddr_in{};
    server_ip->sin_family = AF_INET;
    std::memcpy(&server_ip->sin_addr, host->h_addr_list[0], sizeof server_ip->sin_addr);
    server_ip->sin_port = htons(static_cast<uint16_t>(tcp_settings->port));
    return 0;
}

int open_datagram(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings,
                  sockaddr_in *server_ip) noexcept {
    const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        std::puts("socket error\r");
        return -1;
    }
    // The socket stays unconnected; the caller sends to server_ip with each datagram.
    (void)datagram_server(tcp_settings, server_ip);
    settings->serial_handle = sock;
    return 0;
}

}  // namespace kplc::transport
