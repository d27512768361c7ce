// Datagram set-up: the PLC's socket address and an unconnected datagram socket.
#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "kplc/transport.h"
#include "transport/address_text.hpp"

extern "C" {

KPLC_API int get_server_ip(PLC_TCP_INIT_PARAMETERS *tcp_settings, struct sockaddr_in *server_ip) {
    const auto text = kplc::transport::address_text(static_cast<unsigned int>(tcp_settings->ipaddr));
    const auto *host = reinterpret_cast<const hostent *>(zel_gethostbyname(text.data()));
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

KPLC_API int init_udp_comm(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings,
                           struct sockaddr_in *server_ip) {
    const int sock = zel_socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        std::puts("socket error\r");
        return -1;
    }
    // The socket stays unconnected; the caller sends with zel_sendto to server_ip.
    (void)get_server_ip(tcp_settings, server_ip);
    settings->serial_handle = sock;
    return 0;
}

}  // extern "C"
