// The exported connection and exchange routines. The exchange routines drain
// stale input into the link's drain area, as the driver's own exchanges do.
#include "kplc/transport.h"
#include "protocol/link.hpp"
#include "transport/connect.hpp"
#include "transport/exchange.hpp"
#include "transport/frame_dump.hpp"

namespace tr = kplc::transport;

extern "C" {

KPLC_API int CommunicationSet(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings) {
    return tr::connect(tcp_settings, settings);
}

KPLC_API int ReCommunicationSet(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings) {
    return tr::connect(tcp_settings, settings);
}

KPLC_API int zel_getClientByDevName(int sockfd, PLC_TCP_INIT_PARAMETERS *serial_settings, struct sockaddr_in *sin) {
    return tr::local_interface_address(sockfd, serial_settings, sin);
}

KPLC_API int SetupTCPComm(PLC_DRV_INIT_SETTINGS *settings, unsigned int ip_addr, int port) {
    return tr::connect_quick(settings, ip_addr, port);
}

KPLC_API int get_server_ip(PLC_TCP_INIT_PARAMETERS *tcp_settings, struct sockaddr_in *server_ip) {
    return tr::datagram_server(tcp_settings, server_ip);
}

KPLC_API int init_udp_comm(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings,
                           struct sockaddr_in *server_ip) {
    return tr::open_datagram(tcp_settings, settings, server_ip);
}

KPLC_API int TransRecvSockBuff(void *send_data, int send_len, void *recv_data, int *recv_len,
                               PLC_DRV_INIT_SETTINGS *settings) {
    return tr::send_and_receive(send_data, send_len, recv_data, recv_len, settings, kplc::link::drain_area());
}

KPLC_API int send_e(const void *msg, int len, PLC_DRV_INIT_SETTINGS *settings) {
    return tr::send_request(msg, len, settings, kplc::link::drain_area());
}

KPLC_API int EmptyBuffer(int sock) { return tr::drain(sock, kplc::link::drain_area()); }

KPLC_API int zel_time_set(PLC_DRV_INIT_SETTINGS *settings, int mode) { return tr::wait_for_input(settings, mode); }

KPLC_API void FlushBuff(int level, void *buffer, int size) { tr::dump_frame(level, buffer, size); }

}  // extern "C"
