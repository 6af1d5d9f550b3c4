#include "transport/conn_send.h"
#include "transport/conn_send_internal.h"

#include <errno.h>
#include <limits.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/liveness.h"
#include "transport/tls.h"

constexpr int RETRY_FAILED_MS = 100;
constexpr int RETRY_SHORT_MS = 10;
constexpr int SEND_PATIENCE_MS = 2000; // for a peer that takes no byte of a message
constexpr int STREAM_LOOK_MS = 200;    // between two looks at a peer that takes no byte of a stream

static bool can_send(const SocketConn *conn)
{
    return conn->socket_fd > 0 && !(conn->ref && conn->ref->broken);
}

static const char *layer_of(const SocketConn *conn)
{
    return conn->ssl ? "SSL" : "TCP";
}

// One system or library call; logs nothing. Bytes accepted; or -1 with errno, EAGAIN when *events is to be waited for.
static int write_once(const SocketConn *conn, const char *bytes, size_t len, short *events)
{
    if (conn->ssl)
        return tls_write_once(conn->ssl, bytes, len, events);
    *events = POLLOUT;
    errno = 0;
    int sent = (int)send(conn->socket_fd, bytes, len, 0);
    if (sent > 0 && conn->ref)
        conn->ref->sent += (uint32_t)sent;
    return sent;
}

static void failed_log(const SocketConn *conn, const char *attempt)
{
    log_warn("%s %s failed, err: %s!", layer_of(conn), attempt,
             conn->ssl ? tls_error_reason() : error_text(errno).text);
}

static void short_log(const SocketConn *conn, size_t len, int sent)
{
    log_warn("%s outgoing data has been cut, len: %d, sent: %d bytes!", layer_of(conn), (int)len, sent);
}

static WaitResult pause_sending(int ms)
{
    log_info("Waiting: %d ms ...", ms);
    return wait_sleep_ms(ms);
}

// The second and last attempt, 100 ms after a failed one. It offers the same bytes, as a begun TLS record requires.
static int send_again(const SocketConn *conn, const char *rest, size_t len, size_t *accepted)
{
    short events;
    failed_log(conn, "send");
    if (pause_sending(RETRY_FAILED_MS) == WAIT_CUT)
        return -1;
    log_info("Trying to send again, len: %d!", (int)len);
    int sent = write_once(conn, rest, len, &events);
    if (sent < 0) {
        failed_log(conn, "re-send");
        return sent;
    }
    *accepted += (size_t)sent;
    if ((size_t)sent < len)
        short_log(conn, len, sent);
    return sent;
}

static void begin_log(const SocketConn *conn, size_t len)
{
    if (!conn->ssl)
        log_debug("tcp_send to %s:%s, len: %d", conn->remote_ip, conn->remote_port, (int)len);
}

static void sent_log(const SocketConn *conn, int sent)
{
    log_debug("%s send, %d bytes.", layer_of(conn), sent);
}

// tcp_send_counted for both layers. Any short count means a full buffer: errno says nothing about it. A count of 0 is
// no progress and is returned.
static int send_counted(const SocketConn *conn, const char *bytes, size_t len, size_t *accepted)
{
    for (int first = -1;;) {
        const char *rest = bytes + *accepted;
        size_t rest_len = len - *accepted;
        short events;
        begin_log(conn, rest_len);
        int sent = write_once(conn, rest, rest_len, &events);
        if (sent < 0) {
            int again = send_again(conn, rest, rest_len, accepted);
            return first < 0 ? again : first;
        }
        *accepted += (size_t)sent;
        if (first < 0)
            first = sent;
        if (sent == 0 || (size_t)sent == rest_len) {
            sent_log(conn, sent);
            return first;
        }
        short_log(conn, rest_len, sent);
        if (pause_sending(RETRY_SHORT_MS) == WAIT_CUT)
            return first;
        log_info("Trying to send remained part, remain_len: %d!", (int)(len - *accepted));
    }
}

int tls_send(TlsSession *session, const void *buf, size_t len)
{
    if (!session || !buf || len == 0) {
        log_error("Invalid parameter!");
        return -1;
    }
    SocketConn conn = {};
    conn.ssl = session;
    size_t accepted = 0;
    return send_counted(&conn, (const char *)buf, len, &accepted);
}

int tcp_send_counted(const SocketConn *conn, const void *buf, size_t len, size_t *accepted)
{
    *accepted = 0;
    if (!can_send(conn))
        return -1;
    if (conn->ssl && (!buf || len == 0)) {
        log_error("Invalid parameter!");
        return -1;
    }
    return send_counted(conn, (const char *)buf, len, accepted);
}

int tcp_send(const SocketConn *conn, const void *buf, size_t len)
{
    size_t accepted;
    return tcp_send_counted(conn, buf, len, &accepted);
}

int conn_send_some(const SocketConn *conn, const void *bytes, size_t len, short *events)
{
    if (!can_send(conn))
        return -1;
    begin_log(conn, len);
    int sent = write_once(conn, (const char *)bytes, len, events);
    if (sent < 0 && errno == EAGAIN)
        return 0;
    if (sent < 0) {
        size_t accepted = 0;
        return send_again(conn, (const char *)bytes, len, &accepted);
    }
    sent_log(conn, sent);
    return sent;
}

// Waits for room for as long as the send queue shrinks: the kernel reports room only after many bytes were taken. 0
// when there is room, else -1.
static int room_wait(int fd, short events)
{
    for (int before = INT_MAX;;) {
        int queued = 0;
        (void)ioctl(fd, SIOCOUTQ, &queued);
        if (queued >= before)
            return -1;
        before = queued;
        WaitResult result = wait_fd(fd, events, SEND_PATIENCE_MS);
        if (result != WAIT_TIMEOUT)
            return result == WAIT_READY ? 0 : -1;
    }
}

// Sends the rest of a begun unit; logs nothing. 0 when all of it was accepted, else -1.
static int rest_send(const SocketConn *conn, const char *rest, size_t len)
{
    while (len > 0) {
        short events;
        int sent = write_once(conn, rest, len, &events);
        if (sent > 0) {
            rest += sent;
            len -= (size_t)sent;
            continue;
        }
        if (sent < 0 && errno != EAGAIN)
            return -1;
        if (room_wait(conn->socket_fd, events) != 0)
            return -1;
    }
    return 0;
}

// Bytes are missing in the stream: nothing may be sent behind them.
static void break_off(const SocketConn *conn)
{
    if (!conn->ref) {
        shutdown(conn->socket_fd, SHUT_RDWR);
        return;
    }
    conn->ref->broken = 1;
    (void)conn_ref_shut(conn->ref);
}

// conn_send for one part of a SEND_MESSAGE. *begun: a byte of the unit was accepted.
static int message_part_send(const SocketConn *conn, const SendPart *part, bool *begun)
{
    size_t accepted;
    const char *bytes = (const char *)part->bytes;
    int result = tcp_send_counted(conn, bytes, part->len, &accepted);
    // A TLS write that was not accepted whole has begun a record, and no other bytes may follow before its end.
    *begun = *begun || accepted > 0 || conn->ssl;
    if (accepted == part->len)
        return result;
    if (!can_send(conn) || !*begun)
        return -1;
    CallOff before = wait_call_off_set({nullptr, 0});
    int failed = rest_send(conn, bytes + accepted, part->len - accepted);
    wait_call_off_set(before);
    if (failed) {
        break_off(conn);
        return -1;
    }
    return result < 0 ? (int)part->len : result;
}

// Waits a while for room. False when NM, to which all streams go, is stuck or the wait was cut short.
static bool room_is_coming(const SocketConn *conn, SendProgress *progress, short events)
{
    WaitResult result = wait_fd(conn->socket_fd, events, STREAM_LOOK_MS);
    if (result == WAIT_TIMEOUT)
        return !conn_is_stuck(conn, progress, NM_PATIENCE_MS);
    return result == WAIT_READY;
}

// conn_send for one part of a SEND_STREAM.
static int stream_part_send(const SocketConn *conn, const SendPart *part)
{
    const char *bytes = (const char *)part->bytes;
    SendProgress progress = {};
    for (size_t sent = 0; sent < part->len;) {
        short events;
        int some = conn_send_some(conn, bytes + sent, part->len - sent, &events);
        sent += some > 0 ? (size_t)some : 0;
        bool waits = some >= 0 && sent < part->len;
        if (some < 0 || (waits && !room_is_coming(conn, &progress, events))) {
            if (can_send(conn))
                break_off(conn);
            return -1;
        }
    }
    return (int)part->len;
}

static int unit_send(const SocketConn *conn, SendKind kind, const SendPart *parts, int count)
{
    int result = 0;
    bool begun = false;
    for (int i = 0; i < count && result >= 0; i++) {
        if (parts[i].len > 0)
            result =
                kind == SEND_STREAM ? stream_part_send(conn, &parts[i]) : message_part_send(conn, &parts[i], &begun);
    }
    return result;
}

int conn_send(const SocketConn *conn, SendKind kind, const SendPart *parts, int count)
{
    pthread_mutex_t *order = conn->ref ? &conn->ref->send_order : nullptr;
    if (order && wait_lock(order) == WAIT_CUT)
        return -1;
    int result = unit_send(conn, kind, parts, count);
    if (order)
        wait_unlock(order);
    return result;
}
