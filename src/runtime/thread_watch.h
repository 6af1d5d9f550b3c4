// thread_watch.h - how long each thread has been in its present unit of work: one turn of its loop, one step of a
// relay, one timer callback. Waiting for work is no work. A thread says what it does with begin and rest, which cost a
// store; whoever supervises the process asks for all of them. Any thread. Nothing here waits or logs.
#pragma once

#include <stdint.h>

constexpr int WATCHED_THREADS_MAX = 24; // threads beyond are not seen
constexpr int WATCHED_NAME_SIZE = 32;   // longer names are truncated

struct WatchedThread {
    char name[WATCHED_NAME_SIZE];
    bool is_working;
    uint32_t working_ms; // 0 while it rests
};

// The calling thread is named so from now on. Its first call makes it a watched one.
void thread_watch_name(const char *name);

// The calling thread begins a unit of work, which also ends the one before. Nothing for a thread that is not watched.
void thread_watch_begin(void);

// It has nothing to do and waits for work.
void thread_watch_rest(void);

// It ends, and is watched no longer.
void thread_watch_leave(void);

// The threads that are watched now; returns their number.
int thread_watch_get(WatchedThread (&threads)[WATCHED_THREADS_MAX]);
