#include "runtime/timer.h"

#include <atomic>
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/stop.h"

typedef void (*TimerHandler)(PluginTimer *self);

// What an expiry needs, one slot per record for the life of the process: a late callback finds it whatever happened to
// its timer, and never reads the record's fields, which its owner may be filling again.
struct TimerSlot {
    std::atomic<PluginTimer *> record; // null: free
    std::atomic<TimerHandler> handler;
};
constexpr int TIMER_SLOTS = 16; // the agent has three records
static TimerSlot s_slots[TIMER_SLOTS];
static std::atomic<int> s_callbacks_running{0};

static TimerSlot *slot_for(PluginTimer *timer)
{
    for (TimerSlot &slot : s_slots) {
        PluginTimer *taken_by = nullptr;
        if (slot.record.compare_exchange_strong(taken_by, timer) || taken_by == timer)
            return &slot;
    }
    return nullptr;
}

static void on_expiry(union sigval value)
{
    sigset_t stop_signals;
    stop_signals_fill(&stop_signals);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    TimerSlot *slot = (TimerSlot *)value.sival_ptr;
    s_callbacks_running++; // before the test, so that the closing sequence either sees this callback or stops it here
    if (!stop_requested())
        slot->handler.load()(slot->record);
    s_callbacks_running--;
}

// The record's handle: one more than the system's, which may legally be 0.
static uintptr_t timerid_of(timer_t handle)
{
    return (uintptr_t)handle + 1;
}

static timer_t handle_of(uintptr_t timerid)
{
    return (timer_t)(timerid - 1);
}

static int timer_make(PluginTimer *timer, timer_t *handle)
{
    TimerSlot *slot = slot_for(timer);
    if (!slot)
        return -1;
    slot->handler = timer->handler;
    struct sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = on_expiry;
    event.sigev_value.sival_ptr = slot;
    return timer_create(CLOCK_MONOTONIC, &event, handle);
}

static int timer_arm(const PluginTimer *timer, timer_t handle)
{
    struct itimerspec period = {};
    period.it_interval.tv_sec = timer->seconds;
    period.it_interval.tv_nsec = (long)timer->milliseconds * 1000000;
    period.it_value = period.it_interval;
    return timer_settime(handle, 0, &period, nullptr);
}

static void start_failed_log(const PluginTimer *timer)
{
    log_error("Start timer for 'p_timer->handler' failed! len: %d s, %d ms", timer->seconds, timer->milliseconds);
}

void start_timer(PluginTimer *timer)
{
    if (!timer)
        return;
    timer_t handle;
    timer->timerid = 0;
    if (timer_make(timer, &handle) != 0) {
        log_error("timer_create failed!");
        start_failed_log(timer);
        return;
    }
    if (timer_arm(timer, handle) != 0) {
        log_error("timer_settime failed!");
        timer_delete(handle);
        start_failed_log(timer);
        return;
    }
    timer->timerid = timerid_of(handle);
    log_info("Start timer for 'p_timer->handler', len: %d s, %d ms, timerid: 0x%lx.", timer->seconds,
             timer->milliseconds, (unsigned long)timer->timerid);
}

void stop_timer(PluginTimer *timer)
{
    if (!timer || timer->timerid == 0)
        return;
    timer_delete(handle_of(timer->timerid));
    log_info("Stop timer, timerid: 0x%lx.", (unsigned long)timer->timerid);
    timer->timerid = 0;
}

int start_alarm_timer(int milliseconds, void (*handler)(int))
{
    if (stop_requested())
        return 0;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART; // an alarm inside a write of the log's stream would lose the rest of its buffer
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGALRM, &action, nullptr) != 0) {
        int error_number = errno;
        log_warn("sigaction failed, errno: %d.", error_number);
        return error_number;
    }
    unsigned left_s = milliseconds > 0 ? alarm((unsigned)milliseconds / 1000) : alarm(0);
    if (stop_requested())
        stop_arm_deadline(); // the request came meanwhile: SIGALRM is the hard deadline again
    return (int)left_s;
}

int timer_callbacks_running(void)
{
    return s_callbacks_running;
}
