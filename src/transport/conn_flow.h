// conn_flow.h - relaying between connections without ever waiting for one of them alone: one wait for several
// connections, and telling a peer that is slow from one that is dead.
#pragma once

#include <stdint.h>

#include "transport/socket.h"

// What a relay wants of one connection (a held copy; socket_fd below 1: nothing). With a session, POLLIN means that
// plaintext can be read.
struct ConnWant {
    const SocketConn *conn;
    short events;      // POLLIN to read; 0 when the relay has no room for what would be read
    short send_events; // what conn_send_some asked for; 0 when nothing waits to be sent
    bool can_read;     // set by conns_wait; an end or an error counts as readable
    bool can_send;     // set by conns_wait
};

// Waits until one of the wants is met, for timeout_ms at most. At most 12 connections. Returns the number of wants met,
// 0 after the time-out or when the wait was cut.
int conns_wait(ConnWant *wants, int count, int timeout_ms);

// How long a connection's send buffer has been full without its peer taking a byte. Zeroed at first; belongs to one
// thread. A new connection under the same record starts again by itself.
struct SendProgress {
    int64_t full_since_ms; // 0: there is room
    uint32_t taken;        // bytes that the peer had taken then; wraps
};

enum StuckRule {
    STUCK_AFTER_2_S, // whatever the peer's kernel says
    STUCK_IF_SILENT, // 30 s for a peer whose kernel still answers window probes: its program only reads nothing
};

// 1 when the send buffer of conn (held) is full and its peer has taken no byte for as long as the rule allows; never
// waits. Any thread, with a progress of its own.
int conn_is_stuck(const SocketConn *conn, SendProgress *progress, StuckRule rule);
