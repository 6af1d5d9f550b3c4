// timer.h - periodic timers, each expiry on a thread of its own, and the process's one-shot alarm.
#pragma once

#include <pthread.h>
#include <stdint.h>

// Owned by the module whose callback it runs; lives for the whole process. The owner's lock guards the fields.
struct PluginTimer {
    uintptr_t timerid; // 0: not running
    int32_t seconds;
    int32_t milliseconds;               // 0 to 999
    void (*handler)(PluginTimer *self); // any thread of the timer service; may overlap with itself
};

// Starts the thread that watches all timers; start_timer does so too if need be. 0, or -1 without a thread or
// descriptor. Start-up, so that a missing thread is noticed.
int timer_service_start(void);

// Creates and starts the timer; the first expiry comes one full period later. A null record is ignored. Failures are
// logged and leave timerid at 0. A period of 0 creates a timer that never expires; a negative one fails. At most 16
// records. Callers stop a running record before they start it again.
// Callbacks run on threads of work_thread.h (512 KiB stack, INT, TERM, QUIT and ALRM blocked). They are not called any
// more once the process is stopping.
void start_timer(PluginTimer *timer);

// Deletes the timer if it runs; else does and logs nothing. Never waits for a callback, which may outlive its timer.
void stop_timer(PluginTimer *timer);

// Arms the process's alarm; an earlier alarm is replaced. Milliseconds are truncated to whole seconds, 0 cancels.
// Returns the seconds that the earlier alarm had left, or an error number when the handler cannot be installed. Does
// nothing and returns 0 once the process is stopping: SIGALRM is then the hard deadline.
int start_alarm_timer(int milliseconds, void (*handler)(int));

// Number of callbacks that are running now, for the closing sequence.
int timer_callbacks_running(void);
