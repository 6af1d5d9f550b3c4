#include "nm/nm_session.h"

#include <pthread.h>
#include <sys/random.h>

#include "device/dma_status.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/wait.h"
#include "status/service_status.h"
#include "transport/conn_registry.h"
#include "transport/nm_wait.h"

constexpr int32_t UDP_DETECTION_PERIOD_S = 6;
constexpr int32_t RUN_STATUS_PERIOD_S = 120;
constexpr int RESTART_DELAY_MS = 10000;
constexpr int32_t RETRY_STAGE_LAST = 2;
static const int k_retry_delays_ms[RETRY_STAGE_LAST + 1] = {10000, 30000, 120000};

std::atomic<uint8_t> g_enable_init_flag{1};
std::atomic<uint8_t> g_init_done{0};
static_assert(std::atomic<uint8_t>::is_always_lock_free, "stored by the alarm's handler");

static std::atomic<int32_t> s_retry_stage;
static std::atomic<uint32_t> s_next_pass; // when the alarm comes, ms, wraps

static void no_callback(PluginTimer *)
{
}

// Bring-up lock, short: g_init_done's way to 1 and both timer records. The callbacks come with the first session.
static pthread_mutex_t s_bring_up_mutex = PTHREAD_MUTEX_INITIALIZER;
static PluginTimer s_udp_detection_timer = {0, UDP_DETECTION_PERIOD_S, 0, no_callback};
static PluginTimer s_run_status_timer = {0, RUN_STATUS_PERIOD_S, 0, no_callback};

// SIGALRM, signal context: asks for a pass.
static void on_enable_init_alarm(int)
{
    g_enable_init_flag = 1;
}

static void pass_arm(int delay_ms)
{
    log_debug("Start timer for 'enable_init_flag', len: %d ms", delay_ms);
    s_next_pass = (uint32_t)(wait_now_ms() + delay_ms);
    (void)start_alarm_timer(delay_ms, on_enable_init_alarm);
}

// A random time of at most start_spread_s, in whole seconds as the alarm counts them.
static int spread_ms(void)
{
    Options options;
    options_get(&options);
    uint32_t random = (uint32_t)wait_now_ms(); // young machines may have no better one yet
    if (options.start_spread_s <= 0)
        return 0;
    ssize_t got = getrandom(&random, sizeof(random), GRND_NONBLOCK);
    (void)got;
    return (int)(random % ((uint32_t)options.start_spread_s + 1)) * 1000;
}

void nm_session_begin(void)
{
    int delay_ms = spread_ms();
    g_enable_init_flag = delay_ms == 0;
    if (delay_ms > 0) {
        log_info("The first bring-up pass comes in %d s.", delay_ms / 1000);
        pass_arm(delay_ms);
    }
}

void nm_session_retry_arm(void)
{
    pass_arm(k_retry_delays_ms[s_retry_stage]);
}

int nm_session_next_pass_ms(void)
{
    if (g_init_done || g_enable_init_flag)
        return -1;
    int32_t left_ms = (int32_t)(s_next_pass - (uint32_t)wait_now_ms());
    return left_ms > 0 ? left_ms : -1;
}

void nm_session_retry_slow_down(void)
{
    if (s_retry_stage < RETRY_STAGE_LAST)
        s_retry_stage++;
}

void nm_session_retry_reset(void)
{
    s_retry_stage = 0;
}

static void timer_restart_locked(PluginTimer *timer, int32_t period_s)
{
    stop_timer(timer);
    timer->seconds = period_s;
    timer->milliseconds = 0;
    start_timer(timer);
}

void udp_detection_period_set(int32_t period_s)
{
    pthread_mutex_lock(&s_bring_up_mutex);
    if (period_s != s_udp_detection_timer.seconds) {
        log_info("Changing UDP detection interval from: %d to %d.", s_udp_detection_timer.seconds, period_s);
        timer_restart_locked(&s_udp_detection_timer, period_s);
    }
    pthread_mutex_unlock(&s_bring_up_mutex);
}

void run_status_period_set(int32_t period_s)
{
    pthread_mutex_lock(&s_bring_up_mutex);
    if (period_s != s_run_status_timer.seconds) {
        log_info("Change the device system status report interval from: %d to %d.", s_run_status_timer.seconds,
                 period_s);
        timer_restart_locked(&s_run_status_timer, period_s);
    }
    pthread_mutex_unlock(&s_bring_up_mutex);
}

// One step under the lock: a restart comes either before all of it or stops both timers after it.
void nm_session_open(TimerCallback udp_detection, TimerCallback run_status)
{
    pthread_mutex_lock(&s_bring_up_mutex);
    g_init_done = 1;
    dma_status_set(DMA_ONLINE, DMA_CAUSE_CLEAR);
    log_info("Init cfg successfully, start the services ...");
    s_udp_detection_timer.handler = udp_detection;
    timer_restart_locked(&s_udp_detection_timer, UDP_DETECTION_PERIOD_S);
    service_status_reset();
    s_run_status_timer.handler = run_status;
    timer_restart_locked(&s_run_status_timer, RUN_STATUS_PERIOD_S);
    pthread_mutex_unlock(&s_bring_up_mutex);
}

void restart_device_init(void)
{
    if (!g_init_done.exchange(0))
        return; // offline, or another thread restarts already
    g_restart_count++;
    nm_session_retry_reset();
    conn_remove_all_but_device();
    pass_arm(RESTART_DELAY_MS + spread_ms());
    pthread_mutex_lock(&s_bring_up_mutex);
    if (!g_init_done) { // unless a new pass came online while we were closing
        stop_timer(&s_udp_detection_timer);
        stop_timer(&s_run_status_timer);
        service_status_disable();
    }
    pthread_mutex_unlock(&s_bring_up_mutex);
}
