#include "transport/tls.h"

#include <errno.h>
#include <limits.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/wait.h"
#include "transport/tls_verify.h"

constexpr int HANDSHAKE_CALLS = 10;
constexpr int SEED_ROUNDS = 1024; // of 2 bytes each

struct TlsSession {
    SSL *ssl;
    int fd;                // constant
    pthread_mutex_t mutex; // short: around one SSL_* call on ssl and its SSL_get_error
    TlsPolicy *policy;     // owned; null without keys in [nm_tls]
};

// Result of one library call: its value and the kind of error when it is not positive. errno is the call's own.
struct TlsResult {
    int value;
    int error; // SSL_ERROR_*
};

template <class Call> static TlsResult tls_call(TlsSession *session, Call call)
{
    pthread_mutex_lock(&session->mutex);
    ERR_clear_error(); // an old entry in the queue turns "want read" into an error and names the wrong fault
    errno = 0;
    TlsResult result = {};
    result.value = call(session->ssl);
    int call_errno = errno;
    result.error = SSL_get_error(session->ssl, result.value);
    pthread_mutex_unlock(&session->mutex);
    errno = call_errno;
    return result;
}

static int clamp_len(size_t len)
{
    return len > INT_MAX ? INT_MAX : (int)len;
}

static bool is_want(int error)
{
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

// What to poll for before the call is repeated.
static short want_events(int error)
{
    return error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
}

// errno of a failed call: EAGAIN only when the call may be repeated.
static void set_errno(int error)
{
    if (is_want(error))
        errno = EAGAIN;
    else if (error != SSL_ERROR_SYSCALL || errno == 0 || errno == EAGAIN)
        errno = EPROTO;
}

const char *tls_error_reason(void)
{
    const char *reason = ERR_reason_error_string(ERR_get_error());
    return reason ? reason : "(null)";
}

static void seed_random(void)
{
    RAND_poll();
    for (int i = 0; i < SEED_ROUNDS && RAND_status() != 1; i++) {
        int word = rand();
        RAND_seed(&word, 2);
    }
}

// Without [nm_tls] nothing is verified, so a strict security level would only refuse old keys. A peer's end without
// close_notify is an ordinary end. Partial and moving-buffer writes stay off: an unfinished SSL_write is repeated with
// the same buffer.
static SSL *new_client_ssl(void)
{
    SSL_library_init();
    SSL_load_error_strings();
    SSL_CTX *ctx = SSL_CTX_new(TLSv1_2_client_method());
    if (!ctx) {
        log_error("SSL_CTX_new() failed!");
        return nullptr;
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_security_level(ctx, 0);
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_LEGACY_SERVER_CONNECT);
    SSL_CTX_set_quiet_shutdown(ctx, 1);
    SSL *ssl = SSL_new(ctx);
    SSL_CTX_free(ctx);
    if (!ssl)
        log_error("SSL_new() failed!");
    return ssl;
}

// Null (logged) on failure; policy stays the caller's then.
static SSL *new_ssl_on(int fd, TlsPolicy *policy)
{
    SSL *ssl = new_client_ssl();
    if (!ssl)
        return nullptr;
    if (SSL_set_fd(ssl, fd) != 1) {
        log_error("SSL_set_fd() failed!");
        SSL_free(ssl);
        return nullptr;
    }
    if (policy && tls_policy_apply(policy, ssl) != 0) {
        SSL_free(ssl);
        return nullptr;
    }
    return ssl;
}

// Takes policy over, on failure too.
static TlsSession *new_session(int fd, TlsPolicy *policy)
{
    SSL *ssl = new_ssl_on(fd, policy);
    TlsSession *session = ssl ? (TlsSession *)calloc(1, sizeof(TlsSession)) : nullptr;
    if (!session) {
        if (ssl)
            log_error("SSL_new() failed!");
        SSL_free(ssl);
        tls_policy_free(policy);
        return nullptr;
    }
    session->ssl = ssl;
    session->fd = fd;
    session->policy = policy;
    pthread_mutex_init(&session->mutex, nullptr);
    return session;
}

enum HandshakeEnd { HANDSHAKE_DONE, HANDSHAKE_FAILED, HANDSHAKE_CUT };

// line: what is logged without a policy; reason: with one, null for that of the last call.
static HandshakeEnd handshake_failed(const TlsSession *session, const char *line, const char *reason)
{
    if (session->policy)
        tls_policy_refusal_log(session->policy, reason, errno);
    else
        log_error("%s", line);
    return HANDSHAKE_FAILED;
}

// The peer has taken part in a whole handshake.
static HandshakeEnd handshake_done(const TlsSession *session)
{
    if (!session->policy || tls_policy_is_met(session->policy))
        return HANDSHAKE_DONE;
    return handshake_failed(session, "", "the peer was not verified");
}

// Waits for what the last call wants, until end_ms; -1: without limit.
static WaitResult handshake_wait(const TlsSession *session, int error, int64_t end_ms)
{
    int64_t left_ms = end_ms < 0 ? -1 : end_ms - wait_now_ms();
    return wait_fd(session->fd, want_events(error), end_ms >= 0 && left_ms < 0 ? 0 : (int)left_ms);
}

static HandshakeEnd handshake(TlsSession *session)
{
    int limit_ms = tls_policy_handshake_ms(session->policy);
    int64_t end_ms = limit_ms < 0 ? -1 : wait_now_ms() + limit_ms;
    for (int budget = HANDSHAKE_CALLS;;) {
        TlsResult result = tls_call(session, [](SSL *ssl) { return SSL_connect(ssl); });
        if (result.value == 1)
            return handshake_done(session);
        if (--budget == 0) // tested first: the tenth failure has this text whatever its error is
            return handshake_failed(session, "SSL_connect failed too much times!", "too many steps");
        if (!is_want(result.error))
            return handshake_failed(session, "SSL_connect faild!", nullptr); // sic
        switch (handshake_wait(session, result.error, end_ms)) {
        case WAIT_CUT:
            return HANDSHAKE_CUT;
        case WAIT_TIMEOUT: // only with a limit, which comes with a policy
            return handshake_failed(session, "", "handshake_timeout_s is over");
        case WAIT_READY:
        case WAIT_ERROR:
            log_warn("SSL_connect failed! Try again...");
        }
    }
}

// errno of a session that could not be made: the caller may go on in plain text, or must not.
static void set_failure_errno(bool has_policy)
{
    errno = has_policy ? EACCES : EPROTO;
}

static TlsSession *session_connect(TlsSession *session)
{
    bool has_policy = session->policy;
    seed_random();
    switch (handshake(session)) {
    case HANDSHAKE_DONE:
        log_info("SSL init success!");
        return session;
    case HANDSHAKE_FAILED:
        tls_deinit(session);
        set_failure_errno(has_policy);
        return nullptr;
    case HANDSHAKE_CUT:
        tls_free(session);
        errno = ECANCELED;
        return nullptr;
    }
    return nullptr;
}

TlsSession *tls_init(int fd, const char *host)
{
    if (fd < 0) {
        log_error("Invalid sockfd: %d!", fd);
        errno = EBADF;
        return nullptr;
    }
    TlsPolicy *policy;
    if (tls_policy_new(host, &policy) != 0) {
        errno = EACCES;
        return nullptr;
    }
    bool has_policy = policy;
    TlsSession *session = new_session(fd, policy);
    if (session)
        return session_connect(session);
    set_failure_errno(has_policy);
    return nullptr;
}

int tls_write_once(TlsSession *session, const void *buf, size_t len, short *events)
{
    int want = clamp_len(len);
    TlsResult result = tls_call(session, [&](SSL *ssl) { return SSL_write(ssl, buf, want); });
    if (result.value > 0)
        return result.value;
    *events = want_events(result.error);
    set_errno(result.error);
    return -1;
}

uint32_t tls_bytes_written(TlsSession *session)
{
    pthread_mutex_lock(&session->mutex);
    uint32_t written = (uint32_t)BIO_number_written(SSL_get_wbio(session->ssl));
    pthread_mutex_unlock(&session->mutex);
    return written;
}

int tls_recv(TlsSession *session, void *buf, size_t len)
{
    if (!session || !buf || len == 0) {
        log_error("Invalid parameter!");
        errno = EINVAL;
        return -1;
    }
    int room = clamp_len(len);
    TlsResult result = tls_call(session, [&](SSL *ssl) { return SSL_read(ssl, buf, room); });
    if (result.value > 0)
        return result.value;
    if (result.error == SSL_ERROR_ZERO_RETURN)
        return 0;
    set_errno(result.error);
    return -1;
}

// 0 when plaintext, the end or an error is there; else what to poll for.
static short events_before_plaintext(TlsSession *session)
{
    TlsResult result = tls_call(session, [](SSL *ssl) {
        char byte;
        return SSL_pending(ssl) > 0 ? 1 : SSL_peek(ssl, &byte, 1);
    });
    if (result.value > 0 || !is_want(result.error))
        return 0;
    return want_events(result.error);
}

static bool has_pending(TlsSession *session)
{
    return tls_call(session, [](SSL *ssl) { return SSL_pending(ssl); }).value > 0;
}

// After exactly the five bytes of a record's header SSL_has_pending finds nothing, but the state is no longer "RH", the
// wait for a header.
bool tls_is_between_records(TlsSession *session)
{
    auto is_between = [](SSL *ssl) {
        return SSL_has_pending(ssl) == 0 && strcmp(SSL_rstate_string(ssl), "RH") == 0 ? 1 : 0;
    };
    return tls_call(session, is_between).value == 1;
}

bool tls_readable(TlsSession *session, int timeout_ms)
{
    if (has_pending(session))
        return true;
    int64_t end_ms = wait_now_ms() + timeout_ms;
    short events = POLLIN;
    for (;;) {
        int64_t left_ms = end_ms - wait_now_ms();
        if (wait_fd(session->fd, events, left_ms > 0 ? (int)left_ms : 0) != WAIT_READY)
            return false;
        events = events_before_plaintext(session);
        if (events == 0)
            return true;
    }
}

void tls_log_deinit(void)
{
    log_info("SSL deinit success!");
}

void tls_free(TlsSession *session)
{
    if (!session)
        return;
    SSL_shutdown(session->ssl); // quiet: writes nothing
    SSL_free(session->ssl);
    tls_policy_free(session->policy);
    pthread_mutex_destroy(&session->mutex);
    free(session);
}

void tls_deinit(TlsSession *session)
{
    if (!session)
        return;
    tls_free(session);
    tls_log_deinit();
}
