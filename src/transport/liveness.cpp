#include "transport/liveness.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "runtime/log.h"
#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/tls.h"

constexpr int LIVENESS_TIMEOUT_MS = 2000;
constexpr int SILENT_PATIENCE_MS = 2000;
constexpr int UNANSWERED_PROBES_MAX = 1; // one may be in flight

int tcp_state_get(int fd)
{
    int on = 1;
    (void)ioctl(fd, FIONBIO, &on);
    WaitResult waited = wait_fd(fd, POLLIN | POLLOUT, LIVENESS_TIMEOUT_MS);
    if (waited == WAIT_CUT)
        return TCP_STATE_ESTABLISHED;
    if (waited != WAIT_READY)
        return TCP_STATE_TIMEOUT;
    struct tcp_info info = {};
    socklen_t len = sizeof(info);
    (void)getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len);
    return info.tcpi_state; // the first byte: some emulators fill in no more
}

int tcp_check_fd(int fd)
{
    if (fd < 1)
        return 0;
    int state = tcp_state_get(fd);
    if (state == TCP_STATE_ESTABLISHED)
        return 1;
    if (state == TCP_STATE_TIMEOUT)
        log_info("TCP socket: %d, selecting timeout.", fd);
    else
        log_info("TCP socket: %d, status: %d is not connected: %d.", fd, state, TCP_STATE_ESTABLISHED);
    return 0;
}

// Bytes that the peer's kernel has acknowledged so far; wraps.
static uint32_t acknowledged_get(const SocketConn *conn)
{
    uint32_t sent = conn->ssl ? tls_bytes_written(conn->ssl) : conn->ref ? conn->ref->sent.load() : 0;
    int queued = 0;
    (void)ioctl(conn->socket_fd, SIOCOUTQ, &queued);
    return sent - (uint32_t)queued;
}

// The peer's kernel still acknowledges, even if only the probes of its closed window.
static bool is_answering(int fd)
{
    struct tcp_info info = {};
    socklen_t len = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0)
        return false;
    return info.tcpi_probes <= UNANSWERED_PROBES_MAX && info.tcpi_retransmits <= UNANSWERED_PROBES_MAX;
}

bool conn_is_stuck(const SocketConn *conn, SendProgress *progress, int patience_ms)
{
    if (wait_fd(conn->socket_fd, POLLOUT, 0) != WAIT_TIMEOUT) {
        progress->full_since_ms = 0;
        return false;
    }
    int64_t now_ms = wait_now_ms();
    uint32_t acknowledged = acknowledged_get(conn);
    if (progress->full_since_ms == 0 || acknowledged != progress->acknowledged) {
        progress->full_since_ms = now_ms;
        progress->acknowledged = acknowledged;
    }
    int64_t full_ms = now_ms - progress->full_since_ms;
    return full_ms >= patience_ms || (full_ms >= SILENT_PATIENCE_MS && !is_answering(conn->socket_fd));
}
