// tls.h - TLS 1.2 client sessions on connected, non-blocking sockets. They encrypt; certificate and name are verified
// only when [nm_tls] of config.ini asks for it (tls_verify.h).
// A session is shared by the threads that hold its connection: one short lock inside it around each single library
// call, never over a wait. Any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct TlsSession;

// Handshake on fd with the server that the caller knows as host (null: none, which no certificate meets): at most 10
// calls of the library. The waits between them have no time-out unless handshake_timeout_s is set; a stop or a call-off
// cuts them short. Returns the session, which the caller frees with tls_deinit or tls_free; or null (logged), silently
// with errno ECANCELED when a wait was cut short. errno EACCES: [nm_tls] has keys, so nothing may be sent in plain text
// instead.
TlsSession *tls_init(int fd, const char *host);

// One SSL_write; logs nothing and does not wait. Bytes accepted; or -1 with errno EAGAIN (nothing accepted: retry with
// the same bytes when *events, POLLIN or POLLOUT, comes) or another errno (the session is dead).
int tls_write_once(TlsSession *session, const void *buf, size_t len, short *events);

// Reason of the calling thread's last failed call, static text.
const char *tls_error_reason(void);

// Bytes that the session has written to its socket so far, encrypted; wraps.
uint32_t tls_bytes_written(TlsSession *session);

// One SSL_read: bytes; 0 at the peer's end; -1 with errno EAGAIN when no plaintext is there yet, with another errno on
// a real error, and for a missing argument (logged).
int tls_recv(TlsSession *session, void *buf, size_t len);

// Plaintext, the session's end or an error can be read within timeout_ms. The rest of an incomplete record is waited
// for within the same time.
bool tls_readable(TlsSession *session, int timeout_ms);

// Nothing of an unread record has arrived, not even its header. Ask after a tls_recv with EAGAIN: true means that what
// arrives next is a new message of the peer, not the rest of an old one.
bool tls_is_between_records(TlsSession *session);

// Ends and frees a session, "SSL deinit success!"; null does nothing. The socket is not closed; call it before that.
void tls_deinit(TlsSession *session);

// The two halves of tls_deinit for a shared connection: the log line when it is closed, and the memory, freed silently
// with the last reference.
void tls_log_deinit(void);
void tls_free(TlsSession *session);
