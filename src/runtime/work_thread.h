// work_thread.h - detached threads with a small stack, and the four that run from start to stop.
#pragma once

#include <atomic>
#include <stdint.h>

// Creates a detached thread (512 KiB stack, system scope) with INT, TERM, QUIT and ALRM blocked. 0, or -1 (logged).
int create_work_thread(void *(*body)(void *), void *arg);

// A thread of the start-up table. exited is 1 until the thread starts and after it has left its loop, so that a thread
// that never started does not hold up the stop. gone is cleared by the starter and set by the thread after its "exited"
// log line, so that the process does not end before that line.
struct WorkThread {
    const char *name;         // whole name for the log; the kernel keeps 15 characters
    void (*turn)(void);       // one cycle with its pause; called until the exit flag is up
    const char *start_failed; // error line of a start that failed
    std::atomic<uint8_t> exited{1};
    std::atomic<uint8_t> gone{1};
};

// Starts the thread. 0, or -1 (create_work_thread's line, then start_failed).
int work_thread_start(WorkThread *thread);

// Names the calling thread, for the kernel truncated to 15 characters, and has it watched (thread_watch.h). Threads
// that end, other than those of the table, call thread_watch_leave.
void work_thread_set_name(const char *name);
