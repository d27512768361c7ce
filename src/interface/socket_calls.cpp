// Thin wrappers over the socket calls, exported for the driver framework's
// common layer. They pass their arguments through and return the call's result.
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kplc/transport.h"

extern "C" {

KPLC_API int zel_recv(int s, char *recv_buf, unsigned int len) {
    return static_cast<int>(::recv(s, recv_buf, len, 0));
}

KPLC_API int zel_send(int s, char *send_buf, unsigned int len) {
    // MSG_NOSIGNAL: a send on a connection the peer has reset fails with EPIPE
    // instead of raising SIGPIPE, which would end the host process. The result
    // is the same as without the flag.
    return static_cast<int>(::send(s, send_buf, len, MSG_NOSIGNAL));
}

KPLC_API int zel_recvfrom(int sockfd, char *buf, unsigned int len, unsigned int flags, struct sockaddr *from,
                          socklen_t *addrlen) {
    return static_cast<int>(::recvfrom(sockfd, buf, len, static_cast<int>(flags), from, addrlen));
}

KPLC_API int zel_sendto(int sockfd, char *buf, unsigned int len, unsigned int flags, struct sockaddr *to,
                        socklen_t tolen) {
    return static_cast<int>(::sendto(sockfd, buf, len, static_cast<int>(flags), to, tolen));
}

KPLC_API int zel_setsockopt(int sockfd, int level, int optname, const void *optval, int optlen) {
    return ::setsockopt(sockfd, level, optname, optval, static_cast<socklen_t>(optlen));
}

KPLC_API int zel_bind(int sockfd, const struct sockaddr *my_addr, int addrlen) {
    return ::bind(sockfd, my_addr, static_cast<socklen_t>(addrlen));
}

KPLC_API int zel_listen(int sockfd, int backlog) { return ::listen(sockfd, backlog); }

KPLC_API int zel_accept(int s, struct sockaddr *addr, int *addrlen) {
    // The framework passes the address length as an int; accept() works on a socklen_t.
    if (addrlen == nullptr) return ::accept(s, addr, nullptr);
    socklen_t len = static_cast<socklen_t>(*addrlen);
    const int fd = ::accept(s, addr, &len);
    *addrlen = static_cast<int>(len);
    return fd;
}

KPLC_API int zel_connect(int sockfd, const struct sockaddr *serv_addr, int addrlen) {
    return ::connect(sockfd, serv_addr, static_cast<socklen_t>(addrlen));
}

KPLC_API int zel_socket(int domain, int type, int protocol) { return ::socket(domain, type, protocol); }

KPLC_API intptr_t zel_gethostbyname(const char *hostname) {
    // The host entry travels as a pointer-sized integer (an int cannot hold a
    // pointer on 64-bit systems); 0 when the name does not resolve.
    return reinterpret_cast<intptr_t>(::gethostbyname(hostname));
}

KPLC_API void zel_close_handel(int handle) { ::close(handle); }

KPLC_API int zel_closesocket(int sockfd) {
    // close()'s own result: 0 when closed, -1 (errno set) when the descriptor
    // was not open or the close failed.
    return ::close(sockfd);
}

}  // extern "C"
