// log.h - the four log calls: printf-style, one line each, filtered by g_log_level and written to the log file, to
// standard output in colour, or to syslog, as g_log_std and the log mode say.
// They preserve errno, so callers may log first and use errno after. Any thread, timer callbacks included; the only
// lock taken is the log lock, the innermost of all. Nothing is allocated. Never called from a signal handler.
#pragma once

#include <stdint.h>
#include <stdio.h>

void log_debug(const char *fmt, ...) __attribute__((format(printf, 1, 2))); // g_log_level above 6: bytes and counts
void log_info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));  // above 5: what happened
void log_warn(const char *fmt, ...) __attribute__((format(printf, 1, 2)));  // above 3: odd, we go on
void log_error(const char *fmt, ...) __attribute__((format(printf, 1, 2))); // above 2: this operation failed

// What follows is for log_file only, which swaps the stream under the log lock.
enum LogMode { LOG_MODE_SYSLOG = 0, LOG_MODE_FILE = 1 };

// Lines of the owner pass the lock between begin and end. begin waits at most 200 ms when limited and then returns -1
// (the caller gives up, the process is ending); otherwise it waits as long as it takes and returns 0.
int log_swap_begin(bool limited);
void log_swap_end(void);

// The mode is main's to change, at any time; the stream only between begin and end.
void log_mode_set(LogMode mode);
LogMode log_mode_get(void);
void log_stream_set(FILE *stream); // null: none
FILE *log_stream_get(void);

// From here on all four calls do nothing: the streams are about to be closed under living threads.
void log_mute(void);
