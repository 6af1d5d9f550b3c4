#include "transport/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/tls.h"

static const char k_any_ip[] = "0.0.0.0";
static const char k_any_port[] = "0";

constexpr int DEFAULT_BUF_SIZE = 2048; // bytes
constexpr int CONNECT_TIMEOUT_MS = 2000;
constexpr int LIVENESS_TIMEOUT_MS = 2000;
constexpr int POLL_RETRY_MS = 10;
constexpr int INTERFACE_RECORDS = 16;
constexpr size_t LOOKUP_SCRATCH_MAX = 64 * 1024;

// Pace of the keep-alive probes: the kernel's own two hours would keep a link to a peer that vanished without a word
// until the next day.
constexpr int KEEPALIVE_IDLE_S = 60;
constexpr int KEEPALIVE_INTERVAL_S = 15;
constexpr int KEEPALIVE_PROBES = 4;
constexpr int USER_TIMEOUT_MS = 120 * 1000;

// What a connect works on; the local list lives no longer than the connect.
struct ConnectJob {
    const char *remote_ip;
    const char *remote_port;
    const char *local_ip;
    const char *local_port;
    int send_buf_size;
    int recv_buf_size;
    struct addrinfo *local_addr; // null: nothing is bound
};

static int set_int_option(int fd, int level, int option, int value)
{
    return setsockopt(fd, level, option, &value, sizeof(value));
}

// What both protocols begin with. 0, or -1 (logged) without an address of the peer.
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

static int wants_bind(const ConnectJob *job)
{
    return strcmp(job->local_ip, k_any_ip) != 0 || strcmp(job->local_port, k_any_port) != 0;
}

static void keep_local_texts(const ConnectJob *job, SocketConn *conn)
{
    (void)text_set(conn->local_ip, job->local_ip);
    (void)text_set(conn->local_port, job->local_port);
}

static void keep_remote_texts(const ConnectJob *job, SocketConn *conn)
{
    (void)text_set(conn->remote_ip, job->remote_ip);
    (void)text_set(conn->remote_port, job->remote_port);
}

// Both ends; the peer's list becomes conn->remote_addr.
static int tcp_resolve(ConnectJob *job, SocketConn *conn)
{
    struct addrinfo *remote;
    if (lookup(job->remote_ip, job->remote_port, SOCK_STREAM, &remote) != 0)
        return -1;
    conn->remote_addr = remote;
    keep_local_texts(job, conn);
    if (wants_bind(job) && lookup(job->local_ip, job->local_port, SOCK_STREAM, &job->local_addr) != 0)
        return -1;
    keep_remote_texts(job, conn);
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
    // A web frame goes out in two sends; the second would wait some 40 ms for the delayed acknowledgement of the first.
    (void)set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    // A byte that the peer marks as urgent keeps its place in the stream, such as the Data Mark of a telnet server.
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

static int tcp_open(int fd, const ConnectJob *job, const struct addrinfo *remote)
{
    if (fd < 1) {
        log_error("TCP create sorcket failed!");
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

// Socket to the resolved peer, or -1.
static int tcp_establish(const ConnectJob *job, const struct addrinfo *remote)
{
    if (!remote) {
        log_error("remote_addr is NULL!");
    } else {
        int fd = socket(remote->ai_family, remote->ai_socktype, remote->ai_protocol);
        if (tcp_open(fd, job, remote) == 0)
            return fd;
        log_info("Shutdown and close socket: %d", fd); // also when there is none
        if (fd >= 0) {
            shutdown(fd, SHUT_RDWR);
            close(fd);
        }
    }
    log_error("Could not make connection [remote (%s:%s), local (%s:%s)]", job->remote_ip, job->remote_port,
              job->local_ip, job->local_port);
    return -1;
}

static void free_remote(SocketConn *conn)
{
    if (conn->remote_addr)
        freeaddrinfo(conn->remote_addr);
    conn->remote_addr = nullptr;
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
        free_remote(&conn);
    }
    return conn;
}

// Outcome of a connect whose socket has become writable.
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
            wait_cadence_ms(POLL_RETRY_MS); // without end, but not as a busy loop
        }
    }
}

// Only logs a failed bind: the socket is kept.
static void udp_bind(int fd, const ConnectJob *job)
{
    if (bind(fd, job->local_addr->ai_addr, job->local_addr->ai_addrlen) == 0)
        return;
    int bind_errno = errno;
    char scratch[128] = {};
    log_error("Binding failed, IP: %s, Port: %s, errno: %s(%d)", job->local_ip, job->local_port,
              strerror_r(bind_errno, scratch, sizeof(scratch)), bind_errno);
}

// Resolves and binds. The peer's list, or null (logged).
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
    keep_local_texts(&job, &conn);
    conn.remote_addr = udp_prepare(fd, &job);
    if (!conn.remote_addr) {
        close(fd);
        return conn;
    }
    (void)set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    keep_remote_texts(&job, &conn);
    conn.socket_fd = fd;
    return conn;
}

void socket_close_private(SocketConn *conn)
{
    tls_deinit(conn->ssl);
    conn->ssl = nullptr;
    if (conn->socket_fd > 0)
        close(conn->socket_fd);
    conn->socket_fd = -1;
    free_remote(conn);
}

int udp_sendto(const SocketConn *conn, const void *buf, size_t len)
{
    if (conn->socket_fd < 1 || !conn->remote_addr)
        return -1;
    return (int)sendto(conn->socket_fd, buf, len, 0, conn->remote_addr->ai_addr, conn->remote_addr->ai_addrlen);
}

int conn_recv(const SocketConn *conn, void *buf, size_t len)
{
    if (conn->ssl)
        return tls_recv(conn->ssl, buf, len);
    return sock_recv(conn->socket_fd, buf, len);
}

int sock_recv(int fd, void *buf, size_t len)
{
    if (fd < 1) {
        errno = EBADF;
        return -1;
    }
    return (int)recv(fd, buf, len, 0);
}

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
    return info.tcpi_state; // the first byte, the only one that every kernel and emulator fills in
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

int poll_readable(int fd, int timeout_ms)
{
    return wait_fd(fd, POLLIN, timeout_ms) == WAIT_READY;
}

int conn_readable(const SocketConn *conn, int timeout_ms)
{
    if (conn->ssl)
        return tls_readable(conn->ssl, timeout_ms);
    return poll_readable(conn->socket_fd, timeout_ms);
}

// Address of a found interface that is up.
static int interface_address(int fd, struct ifreq *record, char (&ip)[IP_TEXT_SIZE])
{
    char name[IFNAMSIZ];
    (void)text_set(name, record->ifr_name);
    if (ioctl(fd, SIOCGIFFLAGS, record) != 0)
        return 0;
    if (!(record->ifr_flags & IFF_UP)) {
        log_error("The interface: %s status is DOWN", name);
        return 0;
    }
    log_debug("the interface status is UP");
    if (ioctl(fd, SIOCGIFADDR, record) != 0)
        return 0;
    struct sockaddr_in address;
    memcpy(&address, &record->ifr_addr, sizeof(address));
    if (!inet_ntop(AF_INET, &address.sin_addr, ip, IP_TEXT_SIZE))
        return 0;
    log_info("The interface: %s, IP address: %s, status is UP.", name, ip);
    return 1;
}

static int find_interface(int fd, const char *interface, char (&ip)[IP_TEXT_SIZE])
{
    struct ifreq records[INTERFACE_RECORDS] = {};
    struct ifconf list = {};
    list.ifc_len = sizeof(records);
    list.ifc_req = records;
    if (ioctl(fd, SIOCGIFCONF, &list) != 0) {
        log_error("cpm: ioctl");
        return 0;
    }
    int count = list.ifc_len / (int)sizeof(records[0]);
    log_debug("interface num is: %d", count);
    for (int i = count - 1; i >= 0; i--) {
        log_debug("Net device: %s", records[i].ifr_name);
        if (strcmp(records[i].ifr_name, interface) == 0)
            return interface_address(fd, &records[i], ip);
    }
    return 0;
}

int get_interface_ip(const char *interface, char (&ip)[IP_TEXT_SIZE])
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        log_error("cpm: socket");
        return 0;
    }
    int found = find_interface(fd, interface, ip);
    close(fd);
    return found;
}

// First IPv4 address of name. 0, or -1 when there is none.
static int lookup_address(const char *name, struct in_addr *address)
{
    for (size_t size = 1024; size <= LOOKUP_SCRATCH_MAX; size *= 2) {
        char *scratch = (char *)malloc(size);
        if (!scratch)
            return -1;
        struct hostent entry;
        struct hostent *found = nullptr;
        int error = 0;
        int result = gethostbyname_r(name, &entry, scratch, size, &found, &error);
        bool usable = result == 0 && found && found->h_addrtype == AF_INET && found->h_addr_list[0];
        if (usable)
            memcpy(address, found->h_addr_list[0], sizeof(*address));
        free(scratch);
        if (result != ERANGE)
            return usable ? 0 : -1;
    }
    return -1;
}

int resolve_host(char *buffer, size_t cap)
{
    if (!buffer || cap == 0 || buffer[0] == '\0')
        return -1;
    struct in_addr address;
    char text[IP_TEXT_SIZE];
    if (lookup_address(buffer, &address) != 0) {
        log_error("gethostbyname() failed: %s", buffer);
        return -1;
    }
    if (!inet_ntop(AF_INET, &address, text, sizeof(text))) {
        log_error("inet_ntoa() failed!");
        return -1;
    }
    (void)text_copy(buffer, cap, text);
    return 0;
}
