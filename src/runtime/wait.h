// wait.h - the one way to wait and the one way to sleep.
// A wait is cut short when the process is asked to stop (stop.h) or the calling thread's work is called off. That is
// neither a time-out nor a dead peer: nothing is counted, closed, acknowledged or logged as one, and the caller returns
// by its failure path. On the main thread a wait that a stop cuts short is a quit point: it does not return unless a
// lock is held (stop_hold_begin). Time is measured on the monotonic clock; EINTR goes on waiting. Any thread.
#pragma once

#include <atomic>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>

enum WaitResult {
    WAIT_CUT = -2,   // stop or call-off
    WAIT_ERROR = -1, // poll itself failed, errno set
    WAIT_TIMEOUT = 0,
    WAIT_READY = 1,
};

// Waits until poll reports any of events (POLLIN, POLLOUT) or an error state on fd; a descriptor below 1 never becomes
// ready. timeout_ms below 0: without limit.
WaitResult wait_fd(int fd, short events, int timeout_ms);

// The same for several descriptors, at most 12; revents are filled in. Descriptors below 1 are skipped.
WaitResult wait_fds(struct pollfd *fds, int count, int timeout_ms);

// Sleeps. WAIT_TIMEOUT after the whole time, else WAIT_CUT.
WaitResult wait_sleep_ms(int ms);

// The pause between two turns of a work loop, 1 to 10 ms, or of the closing sequence: never cut short, so that a loop
// that only the exit flag ends does not spin between a stop request and the flag.
void wait_cadence_ms(int ms);

// Takes a long lock, one that is held over waits. WAIT_READY when taken, WAIT_CUT when the wait for it was cut short.
// From then to wait_unlock no wait of main is a quit point.
WaitResult wait_lock(pthread_mutex_t *mutex);
bool wait_try_lock(pthread_mutex_t *mutex); // the same without waiting: true when taken
void wait_unlock(pthread_mutex_t *mutex);

// A wait of this thread would be cut short now.
bool wait_is_cut(void);

// Call-off of the calling thread: its waits are cut short once *counter differs from value, noticed within 50 ms.
// counter lives for the whole process. outer, which the caller keeps for as long as this one is in force, cuts them
// short too: work within other work ends with either. Returns the call-off in force before, to be set again when the
// work is done.
struct CallOff {
    const std::atomic<uint32_t> *counter; // null: none
    uint32_t value;
    const CallOff *outer = nullptr; // looked at when counter is set
};
CallOff wait_call_off_set(CallOff call_off);

// What the calling thread does while it waits: step runs after every 50 ms of a wait, but not in waits of the step
// itself; null: nothing. Returns the step in force before.
typedef void (*WaitStep)(void);
WaitStep wait_step_set(WaitStep step);

// Milliseconds on the monotonic clock.
int64_t wait_now_ms(void);

// A doorbell: any thread rings, one thread waits on it with wait_bell. Lives for the whole process.
struct WaitBell {
    std::atomic<int> fd{-1};
};
int wait_bell_init(WaitBell *bell);  // 0, or -1 without a descriptor (errno set); a second call does nothing
void wait_bell_ring(WaitBell *bell); // async-signal-safe
WaitResult wait_bell(WaitBell *bell, int timeout_ms); // READY takes back all rings so far
