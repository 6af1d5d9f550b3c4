// socket.h - IPv4 TCP and UDP sockets to a peer given as texts, the value that names a connection, and the
// receives on it, plain or through its TLS session. Sends are in conn_send.h.
// Any thread. Waits are those of wait.h and end when the process stops; a cut wait is never taken for a dead peer.
// Error texts in the log are cut to 31 characters.
#pragma once

#include <netdb.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "runtime/plugin_info.h"

struct ConnRef;    // conn_ref.h
struct TlsSession; // tls.h

// One connection, copied by value. socket_fd below 1 means none: 0 counts as none everywhere.
// A copy that came from conn_hold keeps everything behind it alive until conn_drop; a private connection (ref null)
// belongs to whoever connected it.
struct SocketConn {
    int32_t socket_fd;
    char remote_ip[IP_TEXT_SIZE];
    char remote_port[PORT_TEXT_SIZE];
    char local_ip[IP_TEXT_SIZE];     // "0.0.0.0" when none was given
    char local_port[PORT_TEXT_SIZE]; // "0" when none was given
    struct addrinfo *remote_addr;    // resolved peer; udp_sendto sends to its first entry
    TlsSession *ssl;                 // set: sends and receives go through it
    ConnRef *ref;                    // what copies of a shared connection count; null for a private one
};

// Connects within 2 s; the socket stays non-blocking until it is closed. Local texts may be null (nothing is bound).
// Buffer sizes in bytes, 0 = 2048. socket_fd of the result: the socket; -1 when a socket step failed; 0 when an
// argument was null or a name could not be resolved. A failure leaves neither socket nor address list behind.
// The caller owns socket and remote_addr (conn_add takes both over; else socket_close_private).
SocketConn tcp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port,
                       int send_buf_size, int recv_buf_size);

// 1 when the non-blocking connect on fd completed without error within timeout_ms, else 0.
int tcp_wait_connected(int fd, int timeout_ms);

// UDP socket with a resolved peer; a failed bind is logged and the socket kept. socket_fd 0 on failure.
SocketConn udp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port);

// Ends a private connection: TLS session (logged by tls_deinit), socket, address list; clears the fields.
void socket_close_private(SocketConn *conn);

// sendto the first resolved address; -1 without a socket or an address.
int udp_sendto(const SocketConn *conn, const void *buf, size_t len);

// One receive: tls_recv with a session; else -1 without a socket; else recv. errno EAGAIN: nothing was there.
int conn_recv(const SocketConn *conn, void *buf, size_t len);
int sock_recv(int fd, void *buf, size_t len);

// 1 when the socket is an established TCP connection (2 s of a full send buffer is "not established", so is a peer that
// closed its half), else 0. A cut wait answers 1.
int tcp_check_fd(int fd);

// State number of the TCP connection on fd, 1 when established; TCP_STATE_TIMEOUT when the socket reported nothing for
// 2 s. A cut wait answers 1. What tcp_check_fd and tcp_check_conn ask; no lines.
constexpr int TCP_STATE_ESTABLISHED = 1;
constexpr int TCP_STATE_TIMEOUT = -1;
int tcp_state_get(int fd);

// 1 when poll reports anything on fd within timeout_ms, errors included; 0 on a time-out, an error or a cut wait.
// A descriptor below 1 waits its time and answers 0.
int poll_readable(int fd, int timeout_ms);

// The same for a connection, where readable means that data can be read: with a session plaintext must be there.
// For held copies and private connections.
int conn_readable(const SocketConn *conn, int timeout_ms);

// 1 when the interface exists, is up and has an IPv4 address (written to ip), else 0.
int get_interface_ip(const char *interface, char (&ip)[IP_TEXT_SIZE]);

// Resolves the name in buffer in place into dotted IPv4 text, cut to cap. 0, or -1 (logged) when there is none. The one
// wait that a stop cannot end; no short lock may be held. A null or empty buffer or no room answers -1, unlogged.
int resolve_host(char *buffer, size_t cap);
