// tls.h - TLS 1.2 client sessions on connected, non-blocking sockets. They encrypt, they do not authenticate: no
// certificate and no name is verified.
// A session is shared by the threads that hold its connection: one short lock inside it around each single library
// call, never over a wait. Any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct TlsSession;

// Handshake on fd: at most 10 calls, each wait between them as long as the peer needs, a stop or a call-off excepted.
// The session, owned by the caller until tls_deinit or tls_free, or null (logged; silently with errno ECANCELED when a
// wait was cut).
TlsSession *tls_init(int fd);

// One SSL_write without lines or waits: bytes accepted, or -1 with errno EAGAIN (nothing taken; retry with the same
// bytes when events, POLLIN or POLLOUT, come) or another errno (the session is dead).
int tls_write_once(TlsSession *session, const void *buf, size_t len, short *events);

// Reason of the calling thread's last failed call, static text.
const char *tls_error_reason(void);

// Bytes that the session has written to its socket so far; wraps.
uint32_t tls_bytes_written(TlsSession *session);

// One SSL_read: bytes; 0 at the peer's end; -1 with errno EAGAIN when no plaintext is there yet, with another errno on
// a real error, and for a missing argument (logged).
int tls_recv(TlsSession *session, void *buf, size_t len);

// 1 when plaintext can be read (or the end or an error of the session) within timeout_ms, else 0. An incomplete record
// is waited for within the same time.
int tls_readable(TlsSession *session, int timeout_ms);

// 1 when nothing of a record has come that was not read yet, not even its header. Ask behind a tls_recv with EAGAIN:
// what follows is then the peer's next word and not the rest of an old one.
int tls_is_between_records(TlsSession *session);

// Ends and frees a session, "SSL deinit success!"; null does nothing. The socket is not closed; call it before that.
void tls_deinit(TlsSession *session);

// The two halves of tls_deinit for a connection with several users: the line when it is closed, the memory, quietly,
// when the last user has let go.
void tls_log_deinit(void);
void tls_free(TlsSession *session);
