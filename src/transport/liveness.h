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

enum StuckRule {
    STUCK_AFTER_2_S, // whatever the peer's kernel answers
    STUCK_IF_SILENT, // 30 s while the peer's kernel answers window probes: only its program does not read
};

// The send buffer of conn (held) is full and its peer has acknowledged no byte for as long as the rule allows. Never
// waits: callers ask again and again.
bool conn_is_stuck(const SocketConn *conn, SendProgress *progress, StuckRule rule);
