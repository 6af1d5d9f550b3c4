// stop.h - how the process ends.
// A stop is asked for once (a signal, or an init cfg that cannot be read); the first request wins and is final.
// The request makes every wait return early (wait.h); the closing sequence then runs on the main thread only, at a
// quit point: a moment at which main holds no lock. Work threads leave by g_exit_flag, which the sequence raises.
#pragma once

#include <atomic>
#include <signal.h>
#include <stdint.h>

// 1 = every loop must stop. Written by the closing sequence, polled by all threads.
extern std::atomic<uint8_t> g_exit_flag;

// Seconds from a stop request to the hard end of the process, whatever still hangs (a name look-up, a full pipe).
constexpr unsigned STOP_DEADLINE_S = 30;

// Main thread, at start-up before anything waits: creates the wake descriptor and remembers the caller as the main
// thread. sequence is the closing sequence; it gets the exit status and never returns. Returns 0, or -1 without a
// descriptor (errno set).
int stop_init(void (*sequence)(int status));

// Records the request, wakes all waits and arms the hard deadline. Async-signal-safe, errno preserved; later requests
// change nothing.
void stop_request(int status);

// Arms (again) the deadline that ends the process with the requested status. Async-signal-safe.
void stop_arm_deadline(void);

// 1 when a stop was requested or the exit flag is up.
int stop_requested(void);

// Status of the recorded request, -1 without one.
int stop_status(void);

// Readable for good once a stop was requested; for poll only. -1 before stop_init.
int stop_wake_fd(void);

// Runs the closing sequence when a stop was requested, the caller is main and it holds no lock; returns otherwise.
void stop_quit_point(void);

// stop_request, then stop_quit_point: on main it does not return (callers hold no lock), elsewhere the caller fails
// upward and its thread leaves by the exit flag.
void stop_process(int status);

// INT, TERM, QUIT and ALRM: delivered to the main thread only, blocked in all others.
void stop_signals_fill(sigset_t *signals);

// Brackets around a wait made with a lock held: main does not quit between them. They nest; per thread.
void stop_hold_begin(void);
void stop_hold_end(void);
