#include "transport/conn_flow.h"

#include <errno.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/tls.h"

constexpr int WANTS_MAX = 12;
constexpr int PATIENCE_MS = 2000;
constexpr int PATIENCE_ANSWERING_MS = 30000;
constexpr int UNANSWERED_PROBES_MAX = 1; // one may be on its way just now

// Looks without waiting. A session may hold plaintext that its descriptor does not show.
static int wants_look(ConnWant *wants, int count)
{
    int met = 0;
    for (int i = 0; i < count; i++) {
        ConnWant *want = &wants[i];
        int fd = want->conn->socket_fd;
        want->can_read = fd > 0 && (want->events & POLLIN) && conn_readable(want->conn, 0);
        want->can_send = fd > 0 && want->send_events && wait_fd(fd, want->send_events, 0) == WAIT_READY;
        met += want->can_read + want->can_send;
    }
    return met;
}

int conns_wait(ConnWant *wants, int count, int timeout_ms)
{
    int64_t end_ms = wait_now_ms() + timeout_ms;
    for (;;) {
        int met = wants_look(wants, count);
        int64_t left_ms = end_ms - wait_now_ms();
        if (met > 0 || left_ms <= 0 || count > WANTS_MAX)
            return met;
        struct pollfd fds[WANTS_MAX];
        for (int i = 0; i < count; i++) {
            short events = (short)((wants[i].events & POLLIN) | wants[i].send_events);
            fds[i] = {events ? wants[i].conn->socket_fd : -1, events, 0}; // an end would wake us for nothing
        }
        if (wait_fds(fds, count, (int)left_ms) == WAIT_CUT)
            return 0;
    }
}

// Bytes of the connection that its peer's kernel has acknowledged; wraps.
static uint32_t taken_get(const SocketConn *conn)
{
    uint32_t sent = conn->ssl ? tls_bytes_written(conn->ssl) : conn->ref ? conn->ref->sent.load() : 0;
    int queued = 0;
    (void)ioctl(conn->socket_fd, SIOCOUTQ, &queued);
    return sent - (uint32_t)queued;
}

// 1 when the peer's kernel acknowledges what it is sent, be it only probes of its closed window.
static int peer_answers(int fd)
{
    struct tcp_info info = {};
    socklen_t len = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0)
        return 0;
    return info.tcpi_probes <= UNANSWERED_PROBES_MAX && info.tcpi_retransmits <= UNANSWERED_PROBES_MAX;
}

int conn_is_stuck(const SocketConn *conn, SendProgress *progress, StuckRule rule)
{
    if (wait_fd(conn->socket_fd, POLLOUT, 0) != WAIT_TIMEOUT) {
        progress->full_since_ms = 0;
        return 0;
    }
    int64_t now_ms = wait_now_ms();
    uint32_t taken = taken_get(conn);
    if (progress->full_since_ms == 0 || taken != progress->taken) {
        progress->full_since_ms = now_ms;
        progress->taken = taken;
    }
    int64_t full_ms = now_ms - progress->full_since_ms;
    if (full_ms < PATIENCE_MS)
        return 0;
    return rule == STUCK_AFTER_2_S || full_ms >= PATIENCE_ANSWERING_MS || !peer_answers(conn->socket_fd);
}
