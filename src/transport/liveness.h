// liveness.h - tells a dead peer from one that is only slow.
// Any thread; callers hold the connection. A test that a stop or a call-off cuts short finds the peer alive.
#pragma once

#include <stdint.h>

#include "transport/socket.h"

// The connection state of the kernel, 1 when established; TCP_STATE_TIMEOUT when the socket was neither readable nor
// writable for 2 s. Logs nothing; makes the socket non-blocking.
constexpr int TCP_STATE_ESTABLISHED = 1;
constexpr int TCP_STATE_TIMEOUT = -1;
int tcp_state_get(int fd);

// 1 when fd is an established TCP connection, else 0 (logged; silently below 1). A send buffer that stays full for 2 s
// counts as "not established", and so does a peer that has closed its direction.
int tcp_check_fd(int fd);

// Since when a connection's send buffer has been full without its peer acknowledging a byte. Zeroed at first; belongs
// to one thread. May be used on for the next connection.
struct SendProgress {
    int64_t full_since_ms; // monotonic; 0: there is room
    uint32_t acknowledged; // bytes acknowledged by then; wraps
};

// How long a peer may take no byte while its kernel still answers window probes, so that only its program does not
// read. NM: a program that reads 20 KB a second opens a window of 64 KiB every 3 s, and the sender's kernel may learn
// that only with its next probe, 6.2 s after the window was closed. A device may erase its flash meanwhile.
constexpr int NM_PATIENCE_MS = 7000;
constexpr int DEVICE_PATIENCE_MS = 30000;

// The send buffer of conn (held) is full and its peer has acknowledged no byte for patience_ms, or for 2 s if its
// kernel answers no longer. Never waits: callers ask again and again.
bool conn_is_stuck(const SocketConn *conn, SendProgress *progress, int patience_ms);
