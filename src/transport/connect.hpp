// Opening the socket to the PLC.
#pragma once

#include <netinet/in.h>

#include "kplc/records.h"

namespace kplc::transport {

// The driver's connect: a stream socket ('U' mode) or a datagram socket to
// the endpoint, bound to the local interface its selector names, with the
// send time-out (timeout2 mod 10) + 3 s bounding the connect too. On success
// the descriptor is in settings->serial_handle and 0 is returned; -1 after
// the failure's message, with no socket left open.
int connect(PLC_TCP_INIT_PARAMETERS *endpoint, PLC_DRV_INIT_SETTINGS *settings) noexcept;

// The address of the local interface named by the endpoint's selector (1
// eth0, 2 eth1, 3 wlan0) with port 0: 0 found, 1 no interface selected, -1
// the query failed (the socket is closed then).
int local_interface_address(int sock, PLC_TCP_INIT_PARAMETERS *endpoint, sockaddr_in *sin) noexcept;

// A stream connect that gives the PLC 30 ms to accept and closes with a reset.
int connect_quick(PLC_DRV_INIT_SETTINGS *settings, unsigned int ip_addr, int port) noexcept;

// The PLC's socket address for datagrams: 0, or -1 when the address does not resolve.
int datagram_server(PLC_TCP_INIT_PARAMETERS *endpoint, sockaddr_in *server) noexcept;

// An unconnected datagram socket into settings->serial_handle, and the
// server's address to send to: 0, or -1 without a socket.
int open_datagram(PLC_TCP_INIT_PARAMETERS *endpoint, PLC_DRV_INIT_SETTINGS *settings, sockaddr_in *server) noexcept;

}  // namespace kplc::transport
