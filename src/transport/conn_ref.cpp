#include "transport/conn_ref.h"

#include <netdb.h>
#include <new>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/stop.h"
#include "transport/tls.h"

constexpr int LINGER_S = 1;

ConnRef *conn_ref_new(const SocketConn *conn)
{
    void *memory = malloc(sizeof(ConnRef));
    if (!memory) {
        log_error("out of memory for a connection!");
        return nullptr;
    }
    ConnRef *ref = new (memory) ConnRef(); // in place: constructs the atomics without the C++ runtime
    ref->users = 1;
    ref->fd = conn->socket_fd;
    ref->remote_addr = conn->remote_addr;
    ref->tls = conn->ssl;
    pthread_mutex_init(&ref->send_order, nullptr);
    return ref;
}

void conn_ref_hold(ConnRef *ref)
{
    if (ref)
        ref->users.fetch_add(1);
}

void conn_ref_release(ConnRef *ref)
{
    if (!ref || ref->users.fetch_sub(1) != 1)
        return;
    tls_free(ref->tls); // before the close: the descriptor may be reused at once
    // A close may linger for a second. At a stop the end of the process closes the descriptors instead.
    if (ref->fd > 0 && !stop_requested())
        close(ref->fd);
    if (ref->remote_addr)
        freeaddrinfo(ref->remote_addr);
    pthread_mutex_destroy(&ref->send_order);
    free(ref);
}

int conn_ref_shut(ConnRef *ref)
{
    if (ref->fd < 1 || ref->shut.exchange(1))
        return 0;
    shutdown(ref->fd, SHUT_RDWR);
    struct linger linger = {1, LINGER_S};
    return setsockopt(ref->fd, SOL_SOCKET, SO_LINGER, &linger, sizeof(linger)) == 0 ? 0 : -1;
}
