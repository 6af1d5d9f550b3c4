#include "transport/conn_life.h"

#include <netdb.h>
#include <new>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/stop.h"
#include "transport/tls.h"

constexpr int LINGER_S = 1;

ConnLife *conn_life_new(const SocketConn *conn)
{
    void *memory = malloc(sizeof(ConnLife));
    if (!memory) {
        log_error("out of memory for a connection!");
        return nullptr;
    }
    ConnLife *life = new (memory) ConnLife(); // in place: the atomics begin their life, the C++ runtime is not needed
    life->users = 1;
    life->fd = conn->socket_fd;
    life->remote_addr = conn->remote_addr;
    life->tls = conn->ssl;
    pthread_mutex_init(&life->send_order, nullptr);
    return life;
}

void conn_life_hold(ConnLife *life)
{
    if (life)
        life->users.fetch_add(1);
}

void conn_life_drop(ConnLife *life)
{
    if (!life || life->users.fetch_sub(1) != 1)
        return;
    tls_free(life->tls); // before the close: nothing may be written to a number that is free again
    // A close may linger for its second; at a stop the descriptors go with the process instead.
    if (life->fd > 0 && !stop_requested())
        close(life->fd);
    if (life->remote_addr)
        freeaddrinfo(life->remote_addr);
    pthread_mutex_destroy(&life->send_order);
    free(life);
}

int conn_life_shut(ConnLife *life)
{
    if (life->fd < 1 || life->shut.exchange(1))
        return 0;
    shutdown(life->fd, SHUT_RDWR);
    struct linger linger = {1, LINGER_S};
    return setsockopt(life->fd, SOL_SOCKET, SO_LINGER, &linger, sizeof(linger)) == 0 ? 0 : -1;
}
