#include "transport/connect.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "runtime/wait.h"

static const char k_any_ip[] = "0.0.0.0";
static const char k_any_port[] = "0";

constexpr int DEFAULT_BUF_SIZE = 2048; // bytes
constexpr int CONNECT_TIMEOUT_MS = 2000;
constexpr int POLL_RETRY_MS = 10;

// Pace of the keep-alive probes. With the kernel's default of two hours, a link to a peer that vanished silently would
// stay up until the next day.
constexpr int KEEPALIVE_IDLE_S = 60;
constexpr int KEEPALIVE_INTERVAL_S = 15;
constexpr int KEEPALIVE_PROBES = 4;
constexpr int USER_TIMEOUT_MS = 120 * 1000;

// The arguments of one connect, and the local addresses to bind.
struct ConnectJob {
    const char *remote_ip;
    const char *remote_port;
    const char *local_ip;
    const char *local_port;
    int send_buf_size;
    int recv_buf_size;
    struct addrinfo *local_addr; // null: nothing is bound; freed before the connect returns
};

static int set_int_option(int fd, int level, int option, int value)
{
    return setsockopt(fd, level, option, &value, sizeof(value));
}

// First step of both protocols. 0, or -1 (logged) when the peer's address or port is missing.
static int job_begin(ConnectJob *job, const char *remote_ip, const char *remote_port, const char *local_ip,
                     const char *local_port)
{
    if (!remote_ip)
        log_error("remote_ip is NULL!");
    if (!remote_port)
        log_error("remote_port is NULL!");
    if (!remote_ip || !remote_port)
        return -1;
    *job = {};
    job->remote_ip = remote_ip;
    job->remote_port = remote_port;
    job->local_ip = local_ip ? local_ip : k_any_ip;
    job->local_port = local_port ? local_port : k_any_port;
    return 0;
}

// Resolves one end. 0 with a list that the caller frees, or -1 (logged).
static int lookup(const char *ip, const char *port, int type, struct addrinfo **list)
{
    struct addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = type;
    *list = nullptr;
    int result = getaddrinfo(ip, port, &hints, list);
    if (result == 0)
        return 0;
    log_error("Could not resolve host: %s\n", gai_strerror(result));
    *list = nullptr;
    return -1;
}

static bool wants_bind(const ConnectJob *job)
{
    return strcmp(job->local_ip, k_any_ip) != 0 || strcmp(job->local_port, k_any_port) != 0;
}

static void local_texts_set(const ConnectJob *job, SocketConn *conn)
{
    (void)text_set(conn->local_ip, job->local_ip);
    (void)text_set(conn->local_port, job->local_port);
}

static void remote_texts_set(const ConnectJob *job, SocketConn *conn)
{
    (void)text_set(conn->remote_ip, job->remote_ip);
    (void)text_set(conn->remote_port, job->remote_port);
}

// Resolves both ends; conn->remote_addr gets the peer's list. 0, or -1 (logged).
static int tcp_resolve(ConnectJob *job, SocketConn *conn)
{
    struct addrinfo *remote;
    if (lookup(job->remote_ip, job->remote_port, SOCK_STREAM, &remote) != 0)
        return -1;
    conn->remote_addr = remote;
    local_texts_set(job, conn);
    if (wants_bind(job) && lookup(job->local_ip, job->local_port, SOCK_STREAM, &job->local_addr) != 0)
        return -1;
    remote_texts_set(job, conn);
    log_debug("Connecting to %s:%s", job->remote_ip, job->remote_port);
    return 0;
}

static int tcp_set_options(int fd, const ConnectJob *job)
{
    (void)set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    if (set_int_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1) != 0) {
        log_warn("TCP setsockopt 'SO_KEEPALIVE' failed!");
        return -1;
    }
    (void)set_int_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE_S);
    (void)set_int_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL_S);
    (void)set_int_option(fd, IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_PROBES);
    (void)set_int_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, USER_TIMEOUT_MS);
    // A web frame goes out in two sends; with Nagle's algorithm the second would wait some 40 ms for the delayed
    // acknowledgement of the first.
    (void)set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    // Urgent data, such as the Data Mark of a telnet server, stays at its place in the stream.
    (void)set_int_option(fd, SOL_SOCKET, SO_OOBINLINE, 1);
    if (set_int_option(fd, SOL_SOCKET, SO_SNDBUF, job->send_buf_size) != 0) {
        log_warn("TCP setsockopt 'SO_SNDBUF' failed!");
        return -1;
    }
    if (set_int_option(fd, SOL_SOCKET, SO_RCVBUF, job->recv_buf_size) != 0) {
        log_warn("TCP setsockopt 'SO_RCVBUF' failed!");
        return -1;
    }
    return 0;
}

static int set_nonblocking(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        log_error("F_GETFL error!");
        return -1;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        log_error("F_SETFL error!");
        return -1;
    }
    return 0;
}

// Sets fd up and connects it. 0, or -1 (logged); fd stays the caller's to close.
static int fd_connect(int fd, const ConnectJob *job, const struct addrinfo *remote)
{
    if (fd < 1) {
        log_error("TCP create sorcket failed!"); // the spelling is fixed
        return -1;
    }
    if (tcp_set_options(fd, job) != 0)
        return -1;
    if (job->local_addr && bind(fd, job->local_addr->ai_addr, job->local_addr->ai_addrlen) != 0) {
        log_error("Binding failed");
        return -1;
    }
    if (set_nonblocking(fd) != 0)
        return -1;
    if (connect(fd, remote->ai_addr, remote->ai_addrlen) != 0 && errno != EINPROGRESS) {
        log_info("Connection refused...");
        return -1;
    }
    if (!tcp_wait_connected(fd, CONNECT_TIMEOUT_MS)) {
        log_info("Connection failed...");
        return -1;
    }
    return 0;
}

// A socket connected to the resolved peer, or -1 (logged).
static int tcp_establish(const ConnectJob *job, const struct addrinfo *remote)
{
    if (!remote) {
        log_error("remote_addr is NULL!");
    } else {
        int fd = socket(remote->ai_family, remote->ai_socktype, remote->ai_protocol);
        if (fd_connect(fd, job, remote) == 0)
            return fd;
        log_info("Shutdown and close socket: %d", fd); // also without a socket
        if (fd >= 0) {
            shutdown(fd, SHUT_RDWR);
            close(fd);
        }
    }
    log_error("Could not make connection [remote (%s:%s), local (%s:%s)]", job->remote_ip, job->remote_port,
              job->local_ip, job->local_port);
    return -1;
}

SocketConn tcp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port,
                       int send_buf_size, int recv_buf_size)
{
    SocketConn conn = {};
    ConnectJob job;
    if (job_begin(&job, remote_ip, remote_port, local_ip, local_port) != 0)
        return conn;
    log_info("TCP connecting [remote (%s:%s), local (%s:%s)] ...", remote_ip, remote_port, job.local_ip,
             job.local_port);
    job.send_buf_size = send_buf_size == 0 ? DEFAULT_BUF_SIZE : send_buf_size;
    job.recv_buf_size = recv_buf_size == 0 ? DEFAULT_BUF_SIZE : recv_buf_size;
    if (tcp_resolve(&job, &conn) == 0)
        conn.socket_fd = tcp_establish(&job, conn.remote_addr);
    if (job.local_addr)
        freeaddrinfo(job.local_addr);
    if (conn.socket_fd < 1) {
        log_warn("TCP connect failed!");
        if (conn.remote_addr)
            freeaddrinfo(conn.remote_addr);
        conn.remote_addr = nullptr;
    }
    return conn;
}

// 1 when the connect on a socket that has become writable succeeded, else 0 (logged).
static int connect_outcome(int fd)
{
    int pending = 0;
    socklen_t len = sizeof(pending);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
        log_error("getsockopt(SO_ERROR): %s", error_text(errno).text);
        return 0;
    }
    if (pending == 0) {
        log_debug("Connection: %d is ready now.", fd);
        return 1;
    }
    errno = pending;
    log_info("Connection timeout(%s)... socket: %d", error_text(pending).text, fd);
    return 0;
}

int tcp_wait_connected(int fd, int timeout_ms)
{
    if (fd < 1)
        return 0;
    for (;;) {
        switch (wait_fd(fd, POLLOUT, timeout_ms)) {
        case WAIT_READY:
            return connect_outcome(fd);
        case WAIT_TIMEOUT:
            log_info("Connection timeout... socket: %d", fd);
            return 0;
        case WAIT_CUT:
            return 0;
        case WAIT_ERROR:
            log_warn("select failed, socket: %d, errno: %d(%s)", fd, errno, error_text(errno).text);
            wait_cadence_ms(POLL_RETRY_MS); // retried without limit, but not in a busy loop
        }
    }
}

// A failed bind is only logged; the socket is used all the same.
static void udp_bind(int fd, const ConnectJob *job)
{
    if (bind(fd, job->local_addr->ai_addr, job->local_addr->ai_addrlen) == 0)
        return;
    int bind_errno = errno;
    char scratch[128] = {};
    log_error("Binding failed, IP: %s, Port: %s, errno: %s(%d)", job->local_ip, job->local_port,
              strerror_r(bind_errno, scratch, sizeof(scratch)), bind_errno);
}

// Resolves both ends and binds fd. Returns the peer's list, or null (logged).
static struct addrinfo *udp_prepare(int fd, ConnectJob *job)
{
    struct addrinfo *remote;
    if (lookup(job->remote_ip, job->remote_port, SOCK_DGRAM, &remote) != 0)
        return nullptr;
    if (wants_bind(job)) {
        if (lookup(job->local_ip, job->local_port, SOCK_DGRAM, &job->local_addr) != 0) {
            freeaddrinfo(remote);
            return nullptr;
        }
        udp_bind(fd, job);
        freeaddrinfo(job->local_addr);
        job->local_addr = nullptr;
    }
    return remote;
}

SocketConn udp_connect(const char *remote_ip, const char *remote_port, const char *local_ip, const char *local_port)
{
    SocketConn conn = {};
    ConnectJob job;
    if (job_begin(&job, remote_ip, remote_port, local_ip, local_port) != 0)
        return conn;
    log_info("UDP connecting [remote (%s:%s), local (%s:%s)] ...", remote_ip, remote_port, job.local_ip,
             job.local_port);
    // Non-blocking: poll may report a datagram whose checksum then turns out wrong.
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    if (fd < 1) {
        log_error("Could not make connection to '%s' on remote_port '%s'", remote_ip, remote_port);
        if (fd == 0)
            close(fd);
        return conn;
    }
    local_texts_set(&job, &conn);
    conn.remote_addr = udp_prepare(fd, &job);
    if (!conn.remote_addr) {
        close(fd);
        return conn;
    }
    (void)set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    remote_texts_set(&job, &conn);
    conn.socket_fd = fd;
    return conn;
}
