#include "status/service_status.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "runtime/file_util.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/thread_watch.h"
#include "runtime/wait.h"
#include "status/service_status_internal.h"
#include "transport/nm_post.h"
#include "transport/nm_wait.h"

constexpr int POLL_PAUSE_MS = 200;
constexpr int TURN_PAUSE_MS = 5;
constexpr int RECORD_PAUSE_MS = 10;
constexpr int FILE_LOCK_WAIT_MS = 100;
constexpr int32_t DEFAULT_PERIOD_S = 120;
constexpr int32_t DEFAULT_LIMIT_KIB = 100;

static const char k_separator[] = {'\r', '\n', '\r', '\n'};

// Record, version and serial number at their longest, and the frame around them: no envelope is ever truncated.
constexpr size_t ENVELOPE_SIZE = SERVICE_RECORD_SIZE + 2 * ID_TEXT_SIZE + 64;

static void service_timer_handle(PluginTimer *timer);

// A short lock: nothing but s_settings and its timer is touched under it.
static pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER;
static ServiceSettings s_settings = {
    false, false, SERVICE_IMMEDIATE, DEFAULT_LIMIT_KIB, {0, DEFAULT_PERIOD_S, 0, service_timer_handle}};

// Moves by compare-and-swap only: a request must not vanish, and a second run never starts.
static std::atomic<uint32_t> s_state{SERVICE_IDLE};

static WaitBell s_bell; // rung whenever the thread has something to look at

// Used by the one running report; too large for the small stacks.
static struct {
    char read[SERVICE_READ_SIZE];
    char record[SERVICE_RECORD_SIZE];
    char envelope[ENVELOPE_SIZE];
} s_buf;

int service_status_init(void)
{
    return wait_bell_init(&s_bell);
}

ServiceSettings service_settings_get(void)
{
    pthread_mutex_lock(&s_lock);
    ServiceSettings copy = s_settings;
    pthread_mutex_unlock(&s_lock);
    return copy;
}

ServiceState service_state_get(void)
{
    return (ServiceState)s_state.load();
}

static bool state_move(ServiceState from, ServiceState to)
{
    uint32_t expected = from;
    return s_state.compare_exchange_strong(expected, to);
}

// During a run a request is dropped: that run reports.
static void report_request(void)
{
    (void)state_move(SERVICE_IDLE, SERVICE_REQUESTED);
    wait_bell_ring(&s_bell);
}

static void service_timer_handle(PluginTimer *timer)
{
    (void)timer;
    report_request();
}

static void timer_stop_locked(void)
{
    stop_timer(&s_settings.timer);
    s_settings.timer_running = false;
}

void service_status_reset(void)
{
    pthread_mutex_lock(&s_lock);
    timer_stop_locked();
    s_settings.enabled = false;
    s_settings.mode = SERVICE_IMMEDIATE;
    s_settings.limit_kib = DEFAULT_LIMIT_KIB;
    s_settings.timer.seconds = DEFAULT_PERIOD_S;
    pthread_mutex_unlock(&s_lock);
    (void)state_move(SERVICE_REQUESTED, SERVICE_IDLE);
}

static void enabled_set(bool enabled)
{
    pthread_mutex_lock(&s_lock);
    s_settings.enabled = enabled;
    pthread_mutex_unlock(&s_lock);
    wait_bell_ring(&s_bell);
}

void service_status_disable(void)
{
    enabled_set(false);
}

void service_status_start(void)
{
    enabled_set(true);
    report_request();
}

void service_status_stop(void)
{
    enabled_set(false);
}

bool service_status_is_enabled(void)
{
    return service_settings_get().enabled;
}

int32_t service_status_period_get(void)
{
    return service_settings_get().timer.seconds;
}

int32_t service_status_limit_get(void)
{
    return service_settings_get().limit_kib;
}

void service_status_set_timing(ServiceReportMode mode, int32_t period_s)
{
    pthread_mutex_lock(&s_lock);
    s_settings.mode = mode;
    if (period_s != s_settings.timer.seconds) {
        log_info("Change the device service status report interval from: %d to %d.", s_settings.timer.seconds,
                 period_s);
        s_settings.timer.seconds = period_s;
        if (s_settings.timer_running)
            timer_stop_locked(); // the next poll starts it with the new period
    }
    pthread_mutex_unlock(&s_lock);
    wait_bell_ring(&s_bell);
}

void service_status_set_delay(ServiceReportMode mode, int32_t limit_kib)
{
    pthread_mutex_lock(&s_lock);
    s_settings.mode = mode;
    s_settings.limit_kib = limit_kib;
    pthread_mutex_unlock(&s_lock);
    wait_bell_ring(&s_bell);
}

void service_status_set_immediate(void)
{
    pthread_mutex_lock(&s_lock);
    s_settings.mode = SERVICE_IMMEDIATE;
    pthread_mutex_unlock(&s_lock);
    wait_bell_ring(&s_bell);
}

void service_status_device_request(void)
{
    ServiceSettings settings = service_settings_get();
    bool is_immediate = settings.mode == SERVICE_IMMEDIATE || settings.mode == SERVICE_IMMEDIATE_TIMING ||
                        settings.mode == SERVICE_IMMEDIATE_DELAY;
    if (settings.enabled && is_immediate)
        report_request();
}

static bool is_timed(int32_t mode)
{
    return mode == SERVICE_TIMING || mode == SERVICE_IMMEDIATE_TIMING;
}

static bool is_by_size(int32_t mode)
{
    return mode == SERVICE_DELAY || mode == SERVICE_IMMEDIATE_DELAY;
}

// Bytes up to a NUL count, as everywhere a text goes out. 0 when a record was handed over, else -1.
static int record_emit(const char *bytes, size_t len, ServiceRecordSink sink, void *arg)
{
    if (len >= sizeof(s_buf.record)) {
        log_error("Invalid param!");
        return -1;
    }
    memcpy(s_buf.record, bytes, len);
    s_buf.record[len] = '\0';
    if (s_buf.record[0] == '\0')
        return -1;
    sink(s_buf.record, arg);
    return 0;
}

// Hands over the records of s_buf.read's first len bytes that have their separator, moves the rest to the front and
// returns its length, or -1 when a wait was cut short.
static ssize_t records_take(size_t len, ServiceRecordSink sink, void *arg)
{
    char *rest = s_buf.read;
    char *end = s_buf.read + len;
    char *separator;
    while ((separator = (char *)memmem(rest, (size_t)(end - rest), k_separator, sizeof(k_separator)))) {
        if (wait_is_cut())
            return -1;
        int emitted = record_emit(rest, (size_t)(separator - rest), sink, arg);
        if (emitted == 0 && wait_sleep_ms(RECORD_PAUSE_MS) == WAIT_CUT)
            return -1;
        rest = separator + sizeof(k_separator);
    }
    memmove(s_buf.read, rest, (size_t)(end - rest));
    return end - rest;
}

void service_records_read(int fd, ServiceRecordSink sink, void *arg)
{
    size_t len = 0;
    while (len < SERVICE_READ_SIZE - 1) { // full without a separator: these bytes are no records
        ssize_t got = read(fd, s_buf.read + len, SERVICE_READ_SIZE - 1 - len);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return;
        if (got == 0) {
            if (len > 0 && len < SERVICE_RECORD_SIZE && !wait_is_cut())
                (void)record_emit(s_buf.read, len, sink, arg);
            return;
        }
        ssize_t rest = records_take(len + (size_t)got, sink, arg);
        if (rest < 0)
            return;
        len = (size_t)rest;
    }
}

// The record is JSON itself and goes in unquoted. A failed post does not end the report.
static void record_post(const char *record, void *arg)
{
    (void)arg;
    thread_watch_begin(); // a long file is many records, each a unit of work
    PluginInfo info;
    plugin_info_get(&info);
    (void)text_fmt(s_buf.envelope, "{\n\t\"ver\":\"%s\",\n\t\"deviceSn\":\"%s\",\n\t\"%s\":%s\n}",
                   info.protocol_version, info.dev_sn, "services", record);
    (void)tx_nms_message(REPORT_WORKING_SERVICES, s_buf.envelope, strlen(s_buf.envelope));
}

void service_status_report(int truncate)
{
    PluginInfo info;
    plugin_info_get(&info);
    if (info.service_path[0] == '\0') {
        log_error("Invalid service status file path!");
        return;
    }
    // O_NONBLOCK: a FIFO ends the run instead of holding it. A failed open (-1) is found and told by lock_file.
    int fd = open(info.service_path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (fd == 0) {
        log_error("Read service status file failed! ErrorNo: %d, Path: %s!", errno, info.service_path);
        return;
    }
    if (lock_file(fd, F_WRLCK, FILE_LOCK_WAIT_MS) == 0) {
        service_records_read(fd, record_post, nullptr);
        // After a run that was cut short the file stays: it is reported again, by this process or the next one.
        if (truncate && !wait_is_cut()) {
            int result = ftruncate(fd, 0);
            (void)result; // not emptied: reported again, nothing is lost
        }
        (void)lock_file(fd, F_UNLCK, 0);
    }
    if (fd > 0)
        close(fd);
}

static void run_from(ServiceState from, int truncate)
{
    if (!state_move(from, SERVICE_RUNNING))
        return;
    CallOff before = nm_wait_begin();
    service_status_report(truncate);
    wait_call_off_set(before);
    s_state = SERVICE_IDLE;
}

void service_status_report_now(void)
{
    ServiceState before = service_state_get(); // a run made now answers a request that came before it
    if (before != SERVICE_RUNNING)
        run_from(before, is_by_size(service_settings_get().mode));
}

// Starts or stops the timer as the settings want it, and returns the settings.
static ServiceSettings timer_settle(void)
{
    pthread_mutex_lock(&s_lock);
    bool wanted = s_settings.enabled && is_timed(s_settings.mode);
    if (wanted && !s_settings.timer_running) {
        stop_timer(&s_settings.timer);
        start_timer(&s_settings.timer);
        s_settings.timer_running = true;
    } else if (!wanted && s_settings.timer_running) {
        timer_stop_locked();
    }
    ServiceSettings copy = s_settings;
    pthread_mutex_unlock(&s_lock);
    return copy;
}

static bool has_file_reached(int32_t limit_kib)
{
    PluginInfo info;
    plugin_info_get(&info);
    struct stat st;
    if (stat(info.service_path, &st) != 0) {
        log_error("Failed to read file property! File path: %s!", info.service_path);
        return false;
    }
    return (int64_t)st.st_size >= (int64_t)limit_kib * 1024;
}

void service_status_poll(void)
{
    ServiceSettings settings = timer_settle();
    if (settings.enabled && is_by_size(settings.mode) && has_file_reached(settings.limit_kib))
        service_status_report_now();
    else if (service_state_get() == SERVICE_REQUESTED)
        run_from(SERVICE_REQUESTED, is_by_size(settings.mode));
    (void)wait_sleep_ms(POLL_PAUSE_MS);
}

// The next poll has something to do without the bell being rung: to watch the file, or to report.
static bool has_work(void)
{
    ServiceSettings settings = service_settings_get();
    return (settings.enabled && is_by_size(settings.mode)) || service_state_get() == SERVICE_REQUESTED;
}

void service_status_turn(void)
{
    // Nothing begins while the process stops: every wait is cut short then, and the poll would repeat every 5 ms.
    if (!wait_is_cut() && (has_work() || wait_bell(&s_bell, -1) == WAIT_READY))
        service_status_poll();
    wait_cadence_ms(TURN_PAUSE_MS);
}
