// log.h - the four log calls: printf-style, one line each, filtered by g_log_level and written to the log file, to
// standard output in colour, or to syslog, as g_log_std and the log mode say.
// Log texts are an interface: other people's programs match them, misspellings and wrong names included. They are not
// to be mended; a text that looks wrong is marked "sic" where it is made. The calls preserve errno, so callers may log
// first and use errno after. Any thread, timer callbacks included; the only lock taken is the log lock, the innermost
// of all. Nothing is allocated unless g_log_secrets is 0. Never called from a signal handler.
#pragma once

#include <atomic>
#include <stdint.h>
#include <stdio.h>

// Settings of config.ini, stored as soon as they are read.
extern std::atomic<int32_t> g_log_std;     // 1 console only, 0 log target only, else both
extern std::atomic<uint32_t> g_log_level;  // threshold, see below
extern std::atomic<int32_t> g_log_secrets; // 0: token, key and secretKey are written as "***" (log_mask.h)

void log_debug(const char *fmt, ...) __attribute__((format(printf, 1, 2))); // g_log_level above 6: bytes and counts
void log_info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));  // above 5: what happened
void log_warn(const char *fmt, ...) __attribute__((format(printf, 1, 2)));  // above 3: unexpected, but handled
void log_error(const char *fmt, ...) __attribute__((format(printf, 1, 2))); // above 2: this operation failed

// The calling thread's last line of log_warn or log_error, written or not, without time and level and truncated to 127
// bytes; "" before the first. Valid until the thread's next one.
const char *log_last_problem(void);

// What follows is for log_file only, which swaps the stream under the log lock.
enum LogMode { LOG_MODE_SYSLOG = 0, LOG_MODE_FILE = 1 };

// Between begin and end the caller holds the log lock as writer; its own log lines do not take the lock. 0, or -1
// without the lock: when limited, begin waits 200 ms at most, as the process is ending; else without limit.
int log_swap_begin(bool limited);
void log_swap_end(void);

// The mode is main's to change, at any time; the stream only between begin and end.
void log_mode_set(LogMode mode);
LogMode log_mode_get(void);
void log_stream_set(FILE *stream); // null: none
FILE *log_stream_get(void);

// From now on the four calls do nothing: the streams are about to be closed while other threads still run.
void log_mute(void);
