#include "runtime/stop.h"
#include "runtime/stop_internal.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

std::atomic<uint8_t> g_exit_flag{0};
static_assert(std::atomic<int>::is_always_lock_free, "used by signal handlers");

constexpr int DEADLINE_S = 30;

static std::atomic<int> s_status{-1};    // -1: no request; 0 is a legal status
static std::atomic<int> s_deadline_s{0}; // on the monotonic clock; 0: not set
static std::atomic<int> s_wake_fd{-1};
static void (*s_sequence)(int status);
static thread_local bool t_is_main;
static thread_local int t_hold_depth;
static bool s_closing; // main thread only: the sequence is running; its own waits are no quit points

static void end_at_deadline(int)
{
    int status = s_status;
    _exit(status < 0 ? 0 : status);
}

int stop_init(void (*sequence)(int status))
{
    t_is_main = true;
    s_sequence = sequence;
    if (s_wake_fd < 0)
        s_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return s_wake_fd < 0 ? -1 : 0;
}

void stop_arm_deadline(void)
{
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = end_at_deadline;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int end_s = 0;
    int wanted_s = (int)now.tv_sec + DEADLINE_S;
    if (s_deadline_s.compare_exchange_strong(end_s, wanted_s))
        end_s = wanted_s;
    alarm(end_s > (int)now.tv_sec ? (unsigned)(end_s - (int)now.tv_sec) : 1);
}

void stop_request(int status)
{
    int saved_errno = errno;
    int none = -1;
    if (s_status.compare_exchange_strong(none, status)) {
        stop_arm_deadline();
        uint64_t one = 1;
        ssize_t written = write(s_wake_fd, &one, sizeof(one));
        (void)written; // the counter cannot be full: this is the only write
    }
    errno = saved_errno;
}

bool stop_requested(void)
{
    return s_status >= 0 || g_exit_flag;
}

int stop_status(void)
{
    return s_status;
}

int stop_wake_fd(void)
{
    return s_wake_fd;
}

void stop_quit_point(void)
{
    if (!t_is_main || t_hold_depth != 0 || s_status < 0 || !s_sequence || s_closing)
        return;
    s_closing = true;
    s_sequence(s_status);
}

void stop_process(int status)
{
    stop_request(status);
    stop_quit_point();
}

void stop_signals_fill(sigset_t *signals)
{
    sigemptyset(signals);
    sigaddset(signals, SIGINT);
    sigaddset(signals, SIGTERM);
    sigaddset(signals, SIGQUIT);
    sigaddset(signals, SIGALRM);
}

void stop_hold_begin(void)
{
    t_hold_depth++;
}

void stop_hold_end(void)
{
    t_hold_depth--;
}

void stop_reset_for_test(void)
{
    alarm(0);
    s_deadline_s = 0;
    s_status = -1;
    s_closing = false;
    g_exit_flag = 0;
    uint64_t drained;
    ssize_t got = read(s_wake_fd, &drained, sizeof(drained));
    (void)got;
}
