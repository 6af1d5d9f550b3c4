// conn_wait.h - one wait for several connections, so that a relay never waits for one of them alone.
#pragma once

#include "transport/socket.h"

// What a relay wants of one connection (a held copy; socket_fd below 1: nothing). With a session, POLLIN means that
// plaintext can be read.
struct ConnWant {
    const SocketConn *conn;
    short events;      // POLLIN to read; 0 when the relay has no room for what would be read
    short send_events; // what conn_send_some asked for; 0 when nothing is to be sent
    bool can_read;     // result; an end or an error counts as readable
    bool can_send;     // result
};

// Waits until one of the wants is met, timeout_ms at most. At most 12 connections. Returns the number of wants met, 0
// after the time-out or when the wait was cut short. Any thread.
int conns_wait(ConnWant *wants, int count, int timeout_ms);
