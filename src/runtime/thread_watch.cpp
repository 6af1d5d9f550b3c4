#include "runtime/thread_watch.h"

#include <atomic>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include "runtime/text.h"

constexpr uint32_t RESTING = 0;

struct WatchSlot {
    bool is_used;                         // under s_lock
    char name[WATCHED_NAME_SIZE];         // under s_lock
    std::atomic<uint32_t> since{RESTING}; // beginning of the unit of work, ms, wraps
};

static pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER; // short
static WatchSlot s_slots[WATCHED_THREADS_MAX];
static thread_local WatchSlot *t_slot; // null: not watched

static uint32_t now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint32_t ms = (uint32_t)now.tv_sec * 1000 + (uint32_t)(now.tv_nsec / 1000000);
    return ms == RESTING ? 1 : ms;
}

static WatchSlot *slot_take_locked(void)
{
    for (WatchSlot &slot : s_slots) {
        if (!slot.is_used) {
            slot.is_used = true;
            slot.since = now_ms();
            return &slot;
        }
    }
    return nullptr;
}

void thread_watch_name(const char *name)
{
    pthread_mutex_lock(&s_lock);
    if (!t_slot)
        t_slot = slot_take_locked();
    if (t_slot)
        (void)text_set(t_slot->name, name);
    pthread_mutex_unlock(&s_lock);
}

#ifdef PLUGIN_TEST_WEDGE
// For tests of a supervisor: hangs while the working directory has a file "wedge.<thread name>", whatever is asked.
static void wedge(void)
{
    char path[WATCHED_NAME_SIZE + 8];
    pthread_mutex_lock(&s_lock);
    (void)text_fmt(path, "wedge.%s", t_slot->name);
    pthread_mutex_unlock(&s_lock);
    while (access(path, F_OK) == 0)
        usleep(100000);
}
#endif

void thread_watch_begin(void)
{
    if (!t_slot)
        return;
    t_slot->since = now_ms();
#ifdef PLUGIN_TEST_WEDGE
    wedge();
#endif
}

void thread_watch_rest(void)
{
    if (t_slot)
        t_slot->since = RESTING;
}

void thread_watch_leave(void)
{
    if (!t_slot)
        return;
    pthread_mutex_lock(&s_lock);
    t_slot->is_used = false;
    pthread_mutex_unlock(&s_lock);
    t_slot = nullptr;
}

int thread_watch_get(WatchedThread (&threads)[WATCHED_THREADS_MAX])
{
    int count = 0;
    uint32_t at_ms = now_ms();
    pthread_mutex_lock(&s_lock);
    for (const WatchSlot &slot : s_slots) {
        if (!slot.is_used)
            continue;
        WatchedThread *thread = &threads[count++];
        uint32_t since = slot.since;
        uint32_t working_ms = at_ms - since;
        *thread = {};
        (void)text_set(thread->name, slot.name);
        thread->is_working = since != RESTING;
        if (thread->is_working && working_ms < UINT32_MAX / 2) // else it began just now
            thread->working_ms = working_ms;
    }
    pthread_mutex_unlock(&s_lock);
    return count;
}
