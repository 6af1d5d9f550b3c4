// work_thread.h - detached threads with a small stack, and the four that run from start to stop.
#pragma once

#include <atomic>
#include <stdint.h>

// Creates a detached thread (512 KiB stack, system scope) with INT, TERM, QUIT and ALRM blocked. 0, or -1 (logged).
int create_work_thread(void *(*body)(void *), void *arg);

// A thread of the start-up table. exited starts at 1, so that a thread that never started does not hold up the stop;
// the thread clears it when it starts and sets it when it leaves. gone follows behind the "exited" line: the starter
// clears it, the thread sets it as its last act, so the process cannot end before that line.
struct WorkThread {
    const char *name;         // whole name for the log; the kernel keeps 15 characters
    void (*turn)(void);       // one cycle with its pause; called until the exit flag is up
    const char *start_failed; // error line of a start that failed
    std::atomic<uint8_t> exited{1};
    std::atomic<uint8_t> gone{1};
};

// Starts the thread. 0, or -1 (create_work_thread's line, then start_failed).
int work_thread_start(WorkThread *thread);

// Names the calling thread, cut to 15 characters.
void work_thread_set_name(const char *name);
