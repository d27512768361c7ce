/* TCP transport: connection set-up, socket wrappers and the timed exchange. */
#ifndef KPLC_TRANSPORT_H
#define KPLC_TRANSPORT_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include "kplc/api.h"
#include "kplc/records.h"

KPLC_BEGIN_DECLS

/* Connection set-up. */
KPLC_API int CommunicationSet(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings);
KPLC_API int ReCommunicationSet(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings);
KPLC_API int zel_getClientByDevName(int sockfd, PLC_TCP_INIT_PARAMETERS *serial_settings, struct sockaddr_in *sin);
KPLC_API int SetupTCPComm(PLC_DRV_INIT_SETTINGS *settings, unsigned int ip_addr, int port);
KPLC_API int get_server_ip(PLC_TCP_INIT_PARAMETERS *tcp_settings, struct sockaddr_in *server_ip);
KPLC_API int init_udp_comm(PLC_TCP_INIT_PARAMETERS *tcp_settings, PLC_DRV_INIT_SETTINGS *settings,
                           struct sockaddr_in *server_ip);

/* Thin socket wrappers. */
KPLC_API int zel_recv(int s, char *recv_buf, unsigned int len);
KPLC_API int zel_send(int s, char *send_buf, unsigned int len);
KPLC_API int zel_recvfrom(int sockfd, char *buf, unsigned int len, unsigned int flags, struct sockaddr *from,
                          socklen_t *addrlen);
KPLC_API int zel_sendto(int sockfd, char *buf, unsigned int len, unsigned int flags, struct sockaddr *to,
                        socklen_t tolen);
KPLC_API int zel_setsockopt(int sockfd, int level, int optname, const void *optval, int optlen);
KPLC_API int zel_bind(int sockfd, const struct sockaddr *my_addr, int addrlen);
KPLC_API int zel_listen(int sockfd, int backlog);
KPLC_API int zel_accept(int s, struct sockaddr *addr, int *addrlen);
KPLC_API int zel_connect(int sockfd, const struct sockaddr *serv_addr, int addrlen);
KPLC_API int zel_socket(int domain, int type, int protocol);
/* Returns the host entry (struct hostent *) as a pointer-sized integer. */
KPLC_API intptr_t zel_gethostbyname(const char *hostname);
KPLC_API void zel_close_handel(int handle);
KPLC_API int zel_closesocket(int sockfd);

/* Timed request/response exchange. */
KPLC_API int TransRecvSockBuff(void *send_data, int send_len, void *recv_data, int *recv_len,
                               PLC_DRV_INIT_SETTINGS *settings);
KPLC_API int send_e(const void *msg, int len, PLC_DRV_INIT_SETTINGS *settings);
KPLC_API int EmptyBuffer(int sock);
KPLC_API int zel_time_set(PLC_DRV_INIT_SETTINGS *settings, int mode);
KPLC_API void FlushBuff(int level, void *buffer, int size);

KPLC_END_DECLS

#endif
