#include "runtime/timer.h"

#include <atomic>
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/stop.h"
#include "runtime/thread_watch.h"
#include "runtime/wait.h"
#include "runtime/work_thread.h"

typedef void (*TimerHandler)(PluginTimer *self);

// One slot per record, kept until the process ends: a late callback finds it even if its timer was stopped or
// restarted, and never reads the record's fields, which its owner may be filling again.
struct TimerSlot {
    PluginTimer *record; // null: free
    TimerHandler handler;
    uintptr_t timerid; // 0: not running
    int64_t period_ms; // 0: never expires
    int64_t due_ms;    // next expiry, on the monotonic clock
};
constexpr int TIMER_SLOTS = 16;  // the agent has three records
constexpr int REST_MS = 3600000; // longest wait of the service when nothing is due; a start rings the bell

// A short lock, the innermost but for the log. Guards the slots and the service's start.
static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static TimerSlot s_slots[TIMER_SLOTS];
static uintptr_t s_last_timerid; // never assigned twice, so that a stale one stops no other timer
static bool s_is_service_running;
static WaitBell s_bell; // a timer was started

static std::atomic<int> s_callbacks_running{0};

static TimerSlot *slot_find_locked(const PluginTimer *timer)
{
    for (TimerSlot &slot : s_slots) {
        if (slot.record == timer)
            return &slot;
    }
    return nullptr;
}

static void *callback_body(void *arg)
{
    pthread_mutex_lock(&s_mutex);
    TimerSlot expired = *(TimerSlot *)arg;
    pthread_mutex_unlock(&s_mutex);
    thread_watch_name("timer");
    if (!stop_requested())
        expired.handler(expired.record);
    thread_watch_leave();
    s_callbacks_running--;
    return nullptr;
}

static void callback_start(TimerSlot *slot)
{
    s_callbacks_running++; // before the thread starts, so that the closing sequence misses none
    if (create_work_thread(callback_body, slot) != 0)
        s_callbacks_running--;
}

// Takes an expiry that is due; several missed ones count as one. Null when nothing is due; *rest_ms is then the time
// until something is.
static TimerSlot *expiry_take(int *rest_ms)
{
    TimerSlot *expired = nullptr;
    int64_t now_ms = wait_now_ms(), first_due_ms = now_ms + REST_MS;
    pthread_mutex_lock(&s_mutex);
    for (TimerSlot &slot : s_slots) {
        if (slot.timerid == 0 || slot.period_ms == 0)
            continue;
        if (slot.due_ms <= now_ms) {
            slot.due_ms += slot.period_ms * ((now_ms - slot.due_ms) / slot.period_ms + 1);
            expired = &slot;
            break;
        }
        if (slot.due_ms < first_due_ms)
            first_due_ms = slot.due_ms;
    }
    pthread_mutex_unlock(&s_mutex);
    *rest_ms = (int)(first_due_ms - now_ms);
    return expired;
}

// Watches all timers and starts a thread per expiry, until the process stops.
static void *service_body(void *arg)
{
    int rest_ms = 0;
    do {
        TimerSlot *expired;
        while ((expired = expiry_take(&rest_ms)) != nullptr)
            callback_start(expired);
    } while (wait_bell(&s_bell, rest_ms) != WAIT_CUT);
    pthread_mutex_lock(&s_mutex);
    s_is_service_running = false;
    pthread_mutex_unlock(&s_mutex);
    return arg;
}

static int service_start_locked(void)
{
    if (!s_is_service_running)
        s_is_service_running = wait_bell_init(&s_bell) == 0 && create_work_thread(service_body, nullptr) == 0;
    return s_is_service_running ? 0 : -1;
}

int timer_service_start(void)
{
    pthread_mutex_lock(&s_mutex);
    int result = service_start_locked();
    pthread_mutex_unlock(&s_mutex);
    return result;
}

// The record's own slot, or else a free one; null when there is none.
static TimerSlot *slot_obtain_locked(const PluginTimer *timer)
{
    TimerSlot *slot = slot_find_locked(timer);
    return slot ? slot : slot_find_locked(nullptr);
}

static bool is_period_valid(const PluginTimer *timer)
{
    return timer->seconds >= 0 && timer->milliseconds >= 0 && timer->milliseconds <= 999;
}

// Null when the timer runs, else the log line of what failed.
static const char *timer_set_locked(PluginTimer *timer)
{
    TimerSlot *slot = service_start_locked() == 0 ? slot_obtain_locked(timer) : nullptr;
    if (!slot)
        return "timer_create failed!";
    slot->record = timer;
    slot->handler = timer->handler;
    if (!is_period_valid(timer))
        return "timer_settime failed!";
    slot->period_ms = (int64_t)timer->seconds * 1000 + timer->milliseconds;
    slot->due_ms = wait_now_ms() + slot->period_ms;
    slot->timerid = ++s_last_timerid;
    timer->timerid = slot->timerid;
    return nullptr;
}

void start_timer(PluginTimer *timer)
{
    if (!timer)
        return;
    timer->timerid = 0;
    pthread_mutex_lock(&s_mutex);
    const char *failure = timer_set_locked(timer);
    pthread_mutex_unlock(&s_mutex);
    if (failure) {
        log_error("%s", failure);
        log_error("Start timer for 'p_timer->handler' failed! len: %d s, %d ms", timer->seconds, timer->milliseconds);
        return;
    }
    wait_bell_ring(&s_bell);
    log_info("Start timer for 'p_timer->handler', len: %d s, %d ms, timerid: 0x%lx.", timer->seconds,
             timer->milliseconds, (unsigned long)timer->timerid);
}

void stop_timer(PluginTimer *timer)
{
    if (!timer || timer->timerid == 0)
        return;
    pthread_mutex_lock(&s_mutex);
    TimerSlot *slot = slot_find_locked(timer);
    if (slot && slot->timerid == timer->timerid)
        slot->timerid = 0;
    pthread_mutex_unlock(&s_mutex);
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
