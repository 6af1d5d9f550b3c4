// stop.h - how the process ends.
// A stop is requested by a signal, or by an init cfg that cannot be read; the first request is final. It cuts every
// wait short (wait.h). The closing sequence then runs on the main thread, at a quit point: a wait of main, or a call of
// stop_quit_point, without a lock held. Work threads leave their loops by g_exit_flag, which the sequence sets.
#pragma once

#include <atomic>
#include <signal.h>
#include <stdint.h>

// 1 = every loop must stop. Written by the closing sequence, polled by all threads.
extern std::atomic<uint8_t> g_exit_flag;

// Main thread, at start-up before anything waits: creates the wake descriptor and makes the caller the main thread.
// sequence is the closing sequence; it gets the exit status and never returns. 0, or -1 without a descriptor (errno
// set).
int stop_init(void (*sequence)(int status));

// Records the request, wakes all waits and arms the hard deadline. Async-signal-safe, errno preserved; later requests
// change nothing.
void stop_request(int status);

// Arms, or arms again, the deadline: 30 s after the request the process ends with the requested status, whatever still
// hangs (a name look-up, a full pipe). Async-signal-safe.
void stop_arm_deadline(void);

// A stop was requested, or the exit flag is set.
bool stop_requested(void);

// Descriptor that stays readable once a stop was requested; for poll only. -1 before stop_init.
int stop_wake_fd(void);

// Runs the closing sequence when a stop was requested, the caller is main and it holds no lock; returns otherwise.
void stop_quit_point(void);

// stop_request, then stop_quit_point. On main it does not return (callers hold no lock). On another thread it returns:
// the caller returns a failure, and the thread leaves by the exit flag.
void stop_process(int status);

// INT, TERM, QUIT and ALRM: delivered to the main thread only, blocked in all others.
void stop_signals_fill(sigset_t *signals);

// Between begin and end the calling thread holds a lock over waits: no quit point of main. The pairs nest.
void stop_hold_begin(void);
void stop_hold_end(void);
