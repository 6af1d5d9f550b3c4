#include "runtime/log.h"
#include "runtime/log_internal.h"

#include <atomic>
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "runtime/log_mask.h"
#include "runtime/text.h"

#define COLOUR_RESET "\033[0m"

struct LogLevel {
    uint32_t threshold; // written when g_log_level is above
    int priority;
    const char *tag;
    const char *colour;
};
static const LogLevel k_debug = {6, LOG_DEBUG, "[DBG] ", COLOUR_RESET};
static const LogLevel k_info = {5, LOG_INFO, "[INF] ", "\033[0;36;40m"};
static const LogLevel k_warn = {3, LOG_WARNING, "[WRN] ", "\033[1;4;31m"};
static const LogLevel k_error = {2, LOG_ERR, "[ERR] ", "\033[1;4;33;41m"};

std::atomic<int32_t> g_log_std{0};
std::atomic<uint32_t> g_log_level{6};
std::atomic<int32_t> g_log_secrets{1};

constexpr size_t PREFIX_SIZE = 256;
constexpr size_t FORMAT_SIZE = 1024; // joined format, truncated to this; its expanded arguments never are
constexpr size_t TAIL_SIZE = 8;      // colour reset and newline, also behind a truncated format
constexpr int SWAP_LIMIT_MS = 200;
constexpr size_t PROBLEM_SIZE = 128;

// Readers: every line around its outputs. Writer: the swap of the stream, which the lock guards.
static pthread_rwlock_t s_lock;
static FILE *s_stream;
static thread_local bool t_is_swap_owner; // this thread holds s_lock as writer: its own lines must not take it

static LogSink s_sink; // null in the agent

static thread_local char t_problem[PROBLEM_SIZE];

static std::atomic<LogMode> s_mode{LOG_MODE_SYSLOG};
static std::atomic<bool> s_is_muted{false};

// Before main, and so before the first line; no static initialiser makes a lock of this kind. glibc lets readers pass a
// waiting writer all the same. The kind that does not would deadlock a thread that reads twice.
__attribute__((constructor)) static void lock_init(void)
{
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NP);
    pthread_rwlock_init(&s_lock, &attr);
    pthread_rwlockattr_destroy(&attr);
}

// A thread name becomes part of a format: its percent signs are doubled.
static void thread_name_get(char (&name)[40])
{
    char raw[17] = {};
    prctl(PR_GET_NAME, raw);
    size_t len = 0;
    for (const char *c = raw; *c != '\0'; c++) {
        if (*c == '%')
            name[len++] = '%';
        name[len++] = *c;
    }
    name[len] = '\0';
}

static void prefix_make(char (&prefix)[PREFIX_SIZE])
{
    char name[40];
    thread_name_get(name);
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local = {};
    localtime_r(&now.tv_sec, &local);
    (void)text_fmt(prefix, "[%4d-%02d-%02d %02d:%02d:%02d.%03d %s:%lu]", local.tm_year + 1900, local.tm_mon + 1,
                   local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, (int)(now.tv_usec / 1000 % 1000), name,
                   (unsigned long)syscall(SYS_gettid));
}

// Ends a truncated format before a conversion that lost its end: with it vfprintf would print nothing at all.
static void incomplete_conversion_drop(char *format)
{
    for (char *c = format; (c = strchr(c, '%')) != nullptr; c++) {
        char *conversion = c;
        c += 1 + strspn(c + 1, "#0- +'123456789.*hlLqjzt");
        if (*c == '\0') {
            *conversion = '\0';
            return;
        }
    }
}

struct JoinedFormat {
    char text[FORMAT_SIZE + TAIL_SIZE];
};

static void format_join(JoinedFormat *joined, const char *head, const char *prefix, const char *tag, const char *fmt,
                        const char *tail)
{
    if (text_format(joined->text, FORMAT_SIZE, "%s%s%s%s", head, prefix, tag, fmt) != 0)
        incomplete_conversion_drop(joined->text);
    (void)text_append(joined->text, sizeof(joined->text), "%s", tail);
}

// The only formats made at run time: the caller's own, checked by the attribute of the four log calls, behind a prefix
// without conversions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
// The whole line with its secrets hidden, freed by the caller; null without memory.
static char *masked_format(const JoinedFormat *joined, va_list args)
{
    char *text;
    if (vasprintf(&text, joined->text, args) < 0)
        return nullptr;
    char *masked = log_mask(text);
    free(text);
    return masked;
}

// A line that cannot be masked is not written.
static const char *text_or_excuse(const char *masked)
{
    return masked ? masked : "out of memory for a log line!\n";
}

static void stream_write(FILE *stream, const JoinedFormat *joined, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    if (g_log_secrets != 0) {
        vfprintf(stream, joined->text, copy);
    } else {
        char *masked = masked_format(joined, copy);
        fputs(text_or_excuse(masked), stream);
        free(masked);
    }
    va_end(copy);
}

static void syslog_write(int priority, const JoinedFormat *joined, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    if (g_log_secrets != 0) {
        vsyslog(priority, joined->text, copy);
    } else {
        char *masked = masked_format(joined, copy);
        syslog(priority, "%s", text_or_excuse(masked));
        free(masked);
    }
    va_end(copy);
}
#pragma GCC diagnostic pop

static void outputs_write(const LogLevel *level, int32_t log_std, LogMode mode, const char *fmt, va_list args)
{
    char prefix[PREFIX_SIZE];
    prefix_make(prefix);
    JoinedFormat joined;

    bool is_owner = t_is_swap_owner; // decided once: released only where it was taken
    if (!is_owner)
        pthread_rwlock_rdlock(&s_lock);
    FILE *stream = s_stream;
    if (stream && mode == LOG_MODE_FILE && log_std != 1) {
        format_join(&joined, "", prefix, level->tag, fmt, "\n");
        stream_write(stream, &joined, args);
    }
    if (!stream || log_std != 0) {
        format_join(&joined, level->colour, prefix, level->tag, fmt, COLOUR_RESET "\n");
        stream_write(stdout, &joined, args);
    }
    if (!is_owner)
        pthread_rwlock_unlock(&s_lock);
}

void log_sink_set(LogSink sink)
{
    s_sink = sink;
}

static bool is_written(const LogLevel *level)
{
    return s_sink || (g_log_level > level->threshold && !s_is_muted);
}

static void sink_write(const LogLevel *level, const char *fmt, va_list args)
{
    char *line;
    if (vasprintf(&line, fmt, args) < 0)
        return;
    s_sink(level->priority, line);
    free(line);
}

static void line_write(const LogLevel *level, const char *fmt, va_list args)
{
    int saved_errno = errno;
    if (s_sink) {
        sink_write(level, fmt, args);
        errno = saved_errno;
        return;
    }
    int32_t log_std = g_log_std;
    LogMode mode = s_mode;
    if (mode == LOG_MODE_SYSLOG && log_std != 1) {
        JoinedFormat joined;
        format_join(&joined, "", "", level->tag, fmt, "");
        syslog_write(level->priority, &joined, args);
    }
    if (mode != LOG_MODE_SYSLOG || log_std != 0)
        outputs_write(level, log_std, mode, fmt, args);
    errno = saved_errno;
}

static void problem_note(const char *fmt, va_list args)
{
    int saved_errno = errno;
    va_list copy;
    va_copy(copy, args);
    (void)text_vformat(t_problem, sizeof(t_problem), fmt, copy);
    va_end(copy);
    if (!g_log_secrets) {
        char *masked = log_mask(t_problem);
        (void)text_set(t_problem, text_or_excuse(masked));
        free(masked);
    }
    errno = saved_errno;
}

const char *log_last_problem(void)
{
    return t_problem;
}

void log_debug(const char *fmt, ...)
{
    if (!is_written(&k_debug))
        return;
    va_list args;
    va_start(args, fmt);
    line_write(&k_debug, fmt, args);
    va_end(args);
}

void log_info(const char *fmt, ...)
{
    if (!is_written(&k_info))
        return;
    va_list args;
    va_start(args, fmt);
    line_write(&k_info, fmt, args);
    va_end(args);
}

void log_warn(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    problem_note(fmt, args);
    if (is_written(&k_warn))
        line_write(&k_warn, fmt, args);
    va_end(args);
}

void log_error(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    problem_note(fmt, args);
    if (is_written(&k_error))
        line_write(&k_error, fmt, args);
    va_end(args);
}

static int swap_lock_limited(void)
{
    struct timespec end;
    clock_gettime(CLOCK_REALTIME, &end); // the thread sanitizer knows no timed lock on the monotonic clock
    end.tv_nsec += SWAP_LIMIT_MS * 1000000;
    end.tv_sec += end.tv_nsec / 1000000000;
    end.tv_nsec %= 1000000000;
    return pthread_rwlock_timedwrlock(&s_lock, &end);
}

int log_swap_begin(bool limited)
{
    int result = limited ? swap_lock_limited() : pthread_rwlock_wrlock(&s_lock);
    if (result != 0)
        return -1;
    t_is_swap_owner = true;
    return 0;
}

void log_swap_end(void)
{
    t_is_swap_owner = false;
    pthread_rwlock_unlock(&s_lock);
}

void log_mode_set(LogMode mode)
{
    s_mode = mode;
}

LogMode log_mode_get(void)
{
    return s_mode;
}

void log_stream_set(FILE *stream)
{
    s_stream = stream;
}

FILE *log_stream_get(void)
{
    return s_stream;
}

void log_mute(void)
{
    s_is_muted = true;
}
