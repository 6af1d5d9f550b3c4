#include "sim_socket.h"

#include <arpa/inet.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

static int bind_socket(int type, const std::string &ip, int *port)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)*port);
    if (inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) != 1)
        return -1;
    int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    socklen_t len = sizeof(addr);
    if (bind(fd, (sockaddr *)&addr, len) != 0 || getsockname(fd, (sockaddr *)&addr, &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

int sim_listen_tcp(const std::string &ip, int *port)
{
    int fd = bind_socket(SOCK_STREAM, ip, port);
    if (fd >= 0 && listen(fd, 64) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int sim_hold_tcp(const std::string &ip, int port)
{
    return bind_socket(SOCK_STREAM, ip, &port);
}

void sim_hold_end(int *held)
{
    if (*held >= 0)
        close(*held);
    *held = -1;
}

int sim_bind_udp(const std::string &ip, int *port)
{
    return bind_socket(SOCK_DGRAM, ip, port);
}

evconnlistener *sim_listener_open(SimLoop *loop, const std::string &ip, int *port, int recv_buffer,
                                  SimAccepted accepted, void *arg)
{
    const int fd = sim_listen_tcp(ip, port);
    if (fd < 0)
        return nullptr;
    if (recv_buffer > 0) // accepted sockets inherit it
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recv_buffer, sizeof(recv_buffer));
    return evconnlistener_new(sim_loop_base(loop), accepted, arg, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, fd);
}

void sim_listener_close(evconnlistener **listener)
{
    if (*listener)
        evconnlistener_free(*listener);
    *listener = nullptr;
}

bufferevent *sim_conn_open(SimLoop *loop, int fd, SSL_CTX *tls)
{
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (!tls)
        return bufferevent_socket_new(sim_loop_base(loop), fd, BEV_OPT_CLOSE_ON_FREE);
    bufferevent *conn = bufferevent_openssl_socket_new(sim_loop_base(loop), fd, SSL_new(tls), BUFFEREVENT_SSL_ACCEPTING,
                                                       BEV_OPT_CLOSE_ON_FREE);
    bufferevent_openssl_set_allow_dirty_shutdown(conn, 1);
    return conn;
}

void sim_conn_close(bufferevent *conn, bool reset)
{
    if (reset) {
        const linger at_once = {1, 0};
        setsockopt(bufferevent_getfd(conn), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    }
    bufferevent_free(conn);
}
