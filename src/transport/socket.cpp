#include "transport/socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/wait.h"
#include "transport/tls.h"

void socket_close_private(SocketConn *conn)
{
    tls_deinit(conn->ssl);
    conn->ssl = nullptr;
    if (conn->socket_fd > 0)
        close(conn->socket_fd);
    conn->socket_fd = -1;
    if (conn->remote_addr)
        freeaddrinfo(conn->remote_addr);
    conn->remote_addr = nullptr;
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

int poll_readable(int fd, int timeout_ms)
{
    return wait_fd(fd, POLLIN, timeout_ms) == WAIT_READY;
}

bool conn_readable(const SocketConn *conn, int timeout_ms)
{
    if (conn->ssl)
        return tls_readable(conn->ssl, timeout_ms);
    return poll_readable(conn->socket_fd, timeout_ms);
}
