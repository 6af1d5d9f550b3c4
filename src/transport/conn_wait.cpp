#include "transport/conn_wait.h"

#include "runtime/wait.h"

constexpr int WANTS_MAX = 12;

// Tests the wants without waiting; returns the number met. A session may hold plaintext that poll does not see.
static int wants_test(ConnWant *wants, int count)
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
        int met = wants_test(wants, count);
        int64_t left_ms = end_ms - wait_now_ms();
        if (met > 0 || left_ms <= 0 || count > WANTS_MAX)
            return met;
        struct pollfd fds[WANTS_MAX];
        for (int i = 0; i < count; i++) {
            short events = (short)((wants[i].events & POLLIN) | wants[i].send_events);
            fds[i] = {events ? wants[i].conn->socket_fd : -1, events,
                      0}; // poll reports a hang-up even if nothing is wanted
        }
        if (wait_fds(fds, count, (int)left_ms) == WAIT_CUT)
            return 0;
    }
}
