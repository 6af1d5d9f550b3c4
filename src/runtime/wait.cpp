#include "runtime/wait.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include "runtime/stop.h"
#include "runtime/thread_watch.h"

constexpr int WAIT_FDS_MAX = 12;
constexpr int SLICE_MS = 50; // of a wait that a call-off may end, or that runs a step
constexpr int LOCK_SLICE_MS = 10;

static thread_local CallOff t_call_off;
static thread_local WaitStep t_step;

int64_t wait_now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

CallOff wait_call_off_set(CallOff call_off)
{
    CallOff before = t_call_off;
    t_call_off = call_off;
    return before;
}

WaitStep wait_step_set(WaitStep step)
{
    WaitStep before = t_step;
    t_step = step;
    return before;
}

bool wait_is_cut(void)
{
    if (stop_requested())
        return true;
    for (const CallOff *call_off = &t_call_off; call_off && call_off->counter; call_off = call_off->outer) {
        if (*call_off->counter != call_off->value)
            return true;
    }
    return false;
}

static void step_run(void)
{
    WaitStep step = wait_step_set(nullptr);
    if (step)
        step();
    wait_step_set(step);
}

// Returns WAIT_CUT, unless this is a quit point of main: then the closing sequence takes over.
static WaitResult cut(void)
{
    stop_quit_point();
    return WAIT_CUT;
}

static int remaining_ms(int64_t end_ms)
{
    int64_t left = end_ms - wait_now_ms();
    return left > 0 ? (int)left : 0;
}

// Time for the next poll. -1: without limit.
static int slice_ms(int timeout_ms, int64_t end_ms)
{
    int left_ms = timeout_ms < 0 ? -1 : remaining_ms(end_ms);
    bool is_sliced = t_call_off.counter || t_step;
    return is_sliced && (left_ms < 0 || left_ms > SLICE_MS) ? SLICE_MS : left_ms;
}

// Polls until something is ready, the time is over or the wait is cut short.
static WaitResult poll_until(struct pollfd *polled, int count, int timeout_ms)
{
    int64_t end_ms = timeout_ms < 0 ? INT64_MAX : wait_now_ms() + timeout_ms;
    for (;;) {
        if (wait_is_cut())
            return cut();
        int ready = poll(polled, (nfds_t)count, slice_ms(timeout_ms, end_ms));
        if (ready < 0) {
            if (errno != EINTR)
                return WAIT_ERROR;
            continue;
        }
        if (wait_is_cut())
            return cut();
        if (ready > 0)
            return WAIT_READY;
        if (timeout_ms >= 0 && remaining_ms(end_ms) == 0)
            return WAIT_TIMEOUT;
        step_run();
    }
}

WaitResult wait_fds(struct pollfd *fds, int count, int timeout_ms)
{
    struct pollfd polled[WAIT_FDS_MAX + 1] = {};
    if (count < 0 || count > WAIT_FDS_MAX) {
        errno = EINVAL;
        return WAIT_ERROR;
    }
    for (int i = 0; i < count; i++) {
        polled[i].fd = fds[i].fd > 0 ? fds[i].fd : -1; // 0 counts as none; poll skips negative ones
        polled[i].events = fds[i].events;
        fds[i].revents = 0;
    }
    polled[count].fd = stop_wake_fd();
    polled[count].events = POLLIN;
    WaitResult result = poll_until(polled, count + 1, timeout_ms);
    for (int i = 0; i < count && result == WAIT_READY; i++)
        fds[i].revents = polled[i].revents;
    return result;
}

WaitResult wait_fd(int fd, short events, int timeout_ms)
{
    struct pollfd one = {fd, events, 0};
    return wait_fds(&one, 1, timeout_ms);
}

WaitResult wait_sleep_ms(int ms)
{
    return wait_fds(nullptr, 0, ms < 0 ? 0 : ms);
}

void wait_cadence_ms(int ms)
{
    struct timespec left = {ms / 1000, (long)(ms % 1000) * 1000000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

bool wait_try_lock(pthread_mutex_t *mutex)
{
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    stop_hold_begin();
    return true;
}

WaitResult wait_lock(pthread_mutex_t *mutex)
{
    while (!wait_try_lock(mutex)) {
        if (wait_sleep_ms(LOCK_SLICE_MS) == WAIT_CUT)
            return WAIT_CUT;
    }
    return WAIT_READY;
}

void wait_unlock(pthread_mutex_t *mutex)
{
    pthread_mutex_unlock(mutex);
    stop_hold_end();
}

int wait_bell_init(WaitBell *bell)
{
    if (bell->fd < 0)
        bell->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return bell->fd < 0 ? -1 : 0;
}

void wait_bell_ring(WaitBell *bell)
{
    int saved_errno = errno;
    uint64_t one = 1;
    ssize_t written = write(bell->fd, &one, sizeof(one));
    (void)written; // a full counter is a bell that rings already
    errno = saved_errno;
}

WaitResult wait_bell(WaitBell *bell, int timeout_ms)
{
    thread_watch_rest();
    WaitResult result = wait_fd(bell->fd, POLLIN, timeout_ms);
    thread_watch_begin();
    if (result == WAIT_READY) {
        uint64_t rings;
        ssize_t got = read(bell->fd, &rings, sizeof(rings));
        (void)got;
    }
    return result;
}
