#include "world.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "device/dma_status.h"
#include "nm/init_cfg_internal.h"
#include "nm/nm_session.h"
#include "runtime/log.h"
#include "runtime/plugin_info_internal.h"
#include "runtime/stop.h"
#include "runtime/work_thread.h"
#include "status/service_status.h"
#include "transport/conn_registry.h"

constexpr int POLLS_MAX = 2000; // then the process is asked to stop, so that no loop is without end
constexpr int SILENCES_MAX = 2; // time-outs behind the last byte, until the peers close

static struct {
    const uint8_t *bytes;
    size_t left;
    size_t piece;
    int connect_error; // 0: accepted
    int polls;
    int silences;
    int64_t now_ms;
} s_world;
static int s_last_kept_fd; // behind it are those of the input

void world_begin(const uint8_t *data, size_t size, size_t piece, bool accepts)
{
    s_world = {data, size, piece ? piece : SIZE_MAX, accepts ? 0 : ECONNREFUSED, 0, 0, 0};
    g_exit_flag = 0;
    s_last_kept_fd = s_last_kept_fd > 0 ? s_last_kept_fd : dup(STDERR_FILENO);
    plugin_info_reset_for_test();
    g_log_level = 7; // what is only made for the log is made too; the log is mute
    (void)init_cfg_parse_text("{\"method\":\"http\",\"host\":\"127.0.0.1\",\"port\":1,\"dev-sn\":\"A1\","
                              "\"web_port\":2,\"telnet_port\":3}");
    set_dma_cause("");
    udp_detection_period_set(6);
    run_status_period_set(120);
    service_status_reset();
    SocketConn device = {};
    device.socket_fd = socket(AF_INET, SOCK_STREAM, 0);
    conn_add(DEV_TCP, device, 0);
}

void world_end(void)
{
    conn_remove_all();
    if (g_exit_flag)
        close_range((unsigned)s_last_kept_fd + 1, ~0U, 0); // a stopping process leaves its sockets open
}

size_t world_bytes_left(void)
{
    return s_world.left;
}

// C functions with the C library's own names: the linker prefers these.
int connect(int, const struct sockaddr *, socklen_t)
{
    errno = s_world.connect_error;
    return s_world.connect_error ? -1 : 0;
}

ssize_t send(int, const void *, size_t len, int)
{
    return (ssize_t)len;
}

ssize_t recv(int, void *buf, size_t len, int)
{
    len = len < s_world.piece ? len : s_world.piece;
    len = len < s_world.left ? len : s_world.left;
    memcpy(buf, s_world.bytes, len);
    s_world.bytes += len;
    s_world.left -= len;
    return (ssize_t)len;
}

// SO_ERROR: none. TCP_INFO: its first byte is the state.
int getsockopt(int, int level, int, void *value, socklen_t *len) noexcept
{
    memset(value, 0, *len);
    if (level == IPPROTO_TCP)
        *(uint8_t *)value = s_world.left > 0 || s_world.silences < SILENCES_MAX ? TCP_ESTABLISHED : TCP_CLOSE_WAIT;
    return 0;
}

// Dotted addresses only: a name would be asked for in the network.
int gethostbyname_r(const char *name, struct hostent *entry, char *buf, size_t buf_cap, struct hostent **found,
                    int *error)
{
    struct in_addr address;
    *found = nullptr;
    return inet_aton(name, &address) ? gethostbyname2_r(name, AF_INET, entry, buf, buf_cap, found, error) : 0;
}

// Sockets are always writable, and readable while there are bytes; where nothing is ready the time passes at once.
int poll(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    short events = (short)(POLLOUT | (s_world.left > 0 ? POLLIN : 0));
    int ready = 0;
    for (nfds_t i = 0; i < count; i++) {
        fds[i].revents = fds[i].fd > 0 ? (short)(fds[i].events & events) : 0;
        ready += fds[i].revents != 0;
    }
    if (ready == 0 && timeout_ms > 0) {
        s_world.now_ms += timeout_ms;
        s_world.silences += s_world.left == 0;
    }
    if (++s_world.polls > POLLS_MAX)
        g_exit_flag = 1;
    return ready;
}

int clock_gettime(clockid_t clock, struct timespec *now) noexcept
{
    if (clock == CLOCK_MONOTONIC) {
        *now = {(time_t)(s_world.now_ms / 1000), (long)(s_world.now_ms % 1000) * 1000000};
        return 0;
    }
    return timespec_get(now, TIME_UTC) == TIME_UTC ? 0 : -1;
}

int clock_nanosleep(clockid_t, int, const struct timespec *, struct timespec *)
{
    return 0;
}

// No threads beside: they would outlive their input.
int create_work_thread(void *(*)(void *), void *)
{
    return -1;
}

void work_thread_set_name(const char *)
{
}
