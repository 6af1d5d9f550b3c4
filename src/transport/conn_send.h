// conn_send.h - sending on a connection, plain or through its TLS session: a single buffer with retries, whole units on
// a connection that several threads send on, and single attempts for a relay that must not wait. Any thread. Waits are
// those of wait.h. Error texts in the log are truncated to 31 characters.
#pragma once

#include <stddef.h>

#include "transport/socket.h"

// Sends buf: one retry 100 ms after a failure, the rest 10 ms after a short count, each step logged. Returns -1 without
// a socket; after a failure the result of the second send; after a short count that first count, not the total. Never
// sends a byte twice. Callers that must know what was sent use conn_send.
int tcp_send(const SocketConn *conn, const void *buf, size_t len);

// The same with SSL_write. -1 (logged) for a missing argument or a length of 0.
int tls_send(TlsSession *session, const void *buf, size_t len);

// One contiguous piece of a message.
struct SendPart {
    const void *bytes;
    size_t len;
};

enum SendKind {
    SEND_MESSAGE, // a frame or a request: lost if no byte of it was accepted; the connection then stays in use
    SEND_STREAM,  // bytes of a user's stream: delivered, or the connection is shut
};

// Sends the parts in order as one unit; no other unit gets between them (the connection's send-order lock).
// SEND_MESSAGE: each part first gets tcp_send's two attempts and log lines. Once a byte is accepted, the remainder is
// sent silently.
// SEND_STREAM: room in the send buffer is waited for from the start, silently.
// The peer of a message has to take a byte every 2 s, that of a stream must not be stuck (liveness.h); otherwise, or on
// a stop, the connection is shut down and marked
// broken, so that a stream with bytes missing is never used again. Calling off the thread's work ends a SEND_STREAM
// only, so that a called-off command does not cost a link that others share. Returns tcp_send's result for the last
// part (its length when the remainder was sent silently), negative as soon as a part could not be sent whole. Empty
// parts are skipped.
int conn_send(const SocketConn *conn, SendKind kind, const SendPart *parts, int count);

// Sends what the connection takes now: the number of bytes, 0 when the send buffer is full (*events, POLLIN or POLLOUT,
// is what to wait for before the next attempt), -1 when the connection is broken, after tcp_send's log lines and its
// retry after 100 ms. With a session the next attempt must offer the same bytes at the same address. Only for a
// connection that one thread sends on: it takes no lock.
int conn_send_some(const SocketConn *conn, const void *bytes, size_t len, short *events);
