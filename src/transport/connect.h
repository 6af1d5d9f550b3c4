// connect.h - opens TCP and UDP sockets to a peer given as texts, IPv4 only.
// Any thread; no state. Error texts in the log are truncated to 31 characters. Ports are not checked: the resolver
// takes a number modulo 65536.
#pragma once

#include "transport/socket.h"

// Connects within 2 s, plus name look-ups (dotted texts need none). The socket is non-blocking for its whole life.
// local_ip "0.0.0.0" and local_port "0", or null for either, bind nothing. Buffer sizes are in bytes, 0 = 2048.
// socket_fd of the result: the socket; -1 when a socket step failed; 0 when the peer's address or port was null or a
// name did not resolve (all logged). A failure leaves neither socket nor address list behind. The caller owns socket
// and remote_addr: conn_add takes both over, socket_close_private frees them.
SocketConn tcp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port,
                       int send_buf_size, int recv_buf_size);

// 1 when the non-blocking connect on fd succeeded within timeout_ms, else 0 (logged, unless the wait was cut short).
int tcp_wait_connected(int fd, int timeout_ms);

// A non-blocking UDP socket with a resolved peer, local texts as above. A failed bind is logged and the socket kept.
// socket_fd is 0 on failure (logged). Ownership as tcp_connect.
SocketConn udp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port);
