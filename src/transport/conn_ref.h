// conn_ref.h - reference-counted connections: descriptor, address list and TLS session are freed with the last
// reference, so that nobody polls, reads or writes a descriptor that was closed and given out again. Any thread.
#pragma once

#include <atomic>
#include <pthread.h>
#include <stdint.h>

#include "transport/socket.h"

struct ConnRef {
    std::atomic<int> users;       // references; the last one frees all
    int fd;                       // constant
    struct addrinfo *remote_addr; // constant
    TlsSession *tls;              // constant
    pthread_mutex_t send_order;   // long lock: held over one whole unit of conn_send with its waits
    std::atomic<uint32_t> sent;   // bytes that the socket has accepted, without a session only; wraps
    std::atomic<uint8_t> broken;  // a unit was sent in part: nothing more is sent, the connection is not usable
    std::atomic<uint8_t> shut;    // both directions were shut down
};

// Takes over socket, address list and session of conn, with one reference for the caller. Null (logged) without memory;
// then everything still belongs to the caller.
ConnRef *conn_ref_new(const SocketConn *conn);

void conn_ref_hold(ConnRef *ref);    // null: nothing
void conn_ref_release(ConnRef *ref); // null: nothing; the last one frees everything and logs nothing

// Shuts both directions down at once, which wakes every thread that waits on the descriptor, and lets a later close
// linger for 1 s at most. Further calls do nothing. 0, or -1 when the linger option was refused.
int conn_ref_shut(ConnRef *ref);
