// socket.h - the value that names a connection, and receiving on it, plain or through its TLS session. Sends are in
// conn_send.h, connects in connect.h, shared connections in conn_registry.h.
// Any thread. Waits are those of wait.h: a stop or a call-off cuts them short.
#pragma once

#include <netdb.h>
#include <stddef.h>
#include <stdint.h>

#include "runtime/plugin_info.h"

struct ConnRef;    // conn_ref.h
struct TlsSession; // tls.h

// One connection, copied by value. socket_fd below 1 means none; descriptor 0 is never used.
// A copy from conn_hold keeps everything behind it alive until conn_drop. A private connection (ref null) belongs to
// whoever connected it.
struct SocketConn {
    int32_t socket_fd;
    char remote_ip[IP_TEXT_SIZE];
    char remote_port[PORT_TEXT_SIZE];
    char local_ip[IP_TEXT_SIZE];     // "0.0.0.0" when none was given
    char local_port[PORT_TEXT_SIZE]; // "0" when none was given
    struct addrinfo *remote_addr;    // resolved peer; udp_sendto sends to its first entry
    TlsSession *ssl;                 // set: sends and receives go through it
    ConnRef *ref;                    // reference count of a shared connection; null for a private one
};

// Ends a private connection: TLS session (logged by tls_deinit), socket, address list; clears the fields.
void socket_close_private(SocketConn *conn);

// One sendto to the first resolved address: its result; -1 without a socket or an address.
int udp_sendto(const SocketConn *conn, const void *buf, size_t len);

// One receive, through the session if there is one: bytes, 0 at the peer's end, or -1. errno EAGAIN: nothing was there;
// EBADF: no socket.
int conn_recv(const SocketConn *conn, void *buf, size_t len);
int sock_recv(int fd, void *buf, size_t len);

// 1 when poll reports data, an end or an error on fd within timeout_ms; 0 after the time-out, and when the wait failed
// or was cut short. A descriptor below 1 waits its time and answers 0.
int poll_readable(int fd, int timeout_ms);

// The same for a connection (private or held). With a session it is readable when plaintext is there.
bool conn_readable(const SocketConn *conn, int timeout_ms);
