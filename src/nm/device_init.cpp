#include "nm/device_init.h"

#include <pthread.h>

#include "device/dev_msg_recv.h"
#include "device/dma_status.h"
#include "nm/activation.h"
#include "nm/heartbeat.h"
#include "nm/init_cfg.h"
#include "runtime/log.h"
#include "runtime/plugin_config.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/timer.h"
#include "runtime/wait.h"
#include "status/metrics.h"
#include "status/service_status.h"
#include "transport/conn_registry.h"
#include "transport/nm_sign.h"
#include "transport/nm_wait.h"

constexpr int32_t UDP_DETECTION_PERIOD_S = 6;
constexpr int32_t RUN_STATUS_PERIOD_S = 120;
constexpr int RESTART_DELAY_MS = 10000;
constexpr int32_t FAILURES_MAX = 4; // one more reads config.ini again and raises the retry stage
constexpr int32_t RETRY_STAGE_LAST = 2;
static const int k_retry_delays_ms[RETRY_STAGE_LAST + 1] = {10000, 30000, 120000};

std::atomic<uint8_t> g_enable_init_flag{1};
std::atomic<uint8_t> g_init_done{0};
static std::atomic<uint8_t> s_identity_outdated{0}; // the init cfg has changed since a pass read it
static_assert(std::atomic<uint8_t>::is_always_lock_free, "stored by the alarm's handler");

static int32_t s_init_fail_count;               // main thread only; since the last success or forced re-read
static std::atomic<int32_t> s_init_retry_stage; // survives a success: a flapping device keeps its long delay

// Bring-up lock, short: g_init_done's way to 1 and both timer records.
static pthread_mutex_t s_bring_up_mutex = PTHREAD_MUTEX_INITIALIZER;
static PluginTimer s_udp_detection_timer = {0, UDP_DETECTION_PERIOD_S, 0, udp_handler};
static PluginTimer s_run_status_timer = {0, RUN_STATUS_PERIOD_S, 0, run_status_handler};

void on_enable_init_alarm(int)
{
    g_enable_init_flag = 1;
}

static void pass_arm(int delay_ms)
{
    log_debug("Start timer for 'enable_init_flag', len: %d ms", delay_ms);
    (void)start_alarm_timer(delay_ms, on_enable_init_alarm);
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

// Reads the init cfg and sees to the message buffers. 0, or -1 (logged).
static int settings_take(void)
{
    log_info("Device initializing...");
    s_identity_outdated = 0;
    if (init_cfg_parse() != 0) {
        log_error("Parsing init cfg failed!");
        return -1;
    }
    return dev_msg_buffer_ready() || dev_msg_buffer_init() ? 0 : -1;
}

// Keeps a device link that works or makes a new one. 0, or -1 (logged).
static int device_link_open(void)
{
    if (conn_is_connected(DEV_TCP) && conn_check(DEV_TCP))
        return 0;
    PluginInfo info;
    plugin_info_get(&info);
    SocketConn conn = tcp_connect(info.dev.remote_ip, info.dev.remote_port, "127.0.0.1", "0", 0, 0);
    if (conn.socket_fd > 0) {
        (void)conn_add(DEV_TCP, conn, 1);
        return conn_is_connected(DEV_TCP) ? 0 : -1; // without memory it is closed again
    }
    conn_note_failed(DEV_TCP, &conn);
    log_warn("tcp_connect to: %s:%s failed!", info.dev.remote_ip, info.dev.remote_port);
    return -1;
}

// Online. One step under the lock: a restart comes either before all of it or stops both timers after it.
static void services_start(void)
{
    s_init_fail_count = 0;
    pthread_mutex_lock(&s_bring_up_mutex);
    g_init_done = 1;
    dma_status_set(DMA_ONLINE, DMA_CAUSE_CLEAR);
    log_info("Init cfg successfully, start the services ...");
    timer_restart_locked(&s_udp_detection_timer, UDP_DETECTION_PERIOD_S);
    service_status_reset();
    timer_restart_locked(&s_run_status_timer, RUN_STATUS_PERIOD_S);
    pthread_mutex_unlock(&s_bring_up_mutex);
    dma_status_notify();
}

// The fifth failure in a row: everything is read again, and the retries become rarer.
static void settings_give_up(void)
{
    log_error("Init config failed over 5 times, re-initialize!");
    s_init_fail_count = 0;
    g_init_done = 0;
    if (!read_plugin_config())
        log_warn("Read config file failed!");
    if (s_init_retry_stage < RETRY_STAGE_LAST)
        s_init_retry_stage++;
}

static void pass_failed(void)
{
    dma_status_notify();
    s_init_fail_count++;
    if (s_init_fail_count > FAILURES_MAX)
        settings_give_up();
    if (s_identity_outdated)
        s_init_retry_stage = 0; // the restart that is due
    log_warn("Init config failed, re-initialize!");
    pass_arm(k_retry_delays_ms[s_init_retry_stage]);
}

// The receive step of a main thread that waits for NM: a device that is to be moved away from a silent NM says so on
// its link.
static void device_link_read(void)
{
    if (poll_conn_readable(DEV_TCP, 0))
        dev_msg_recv();
}

// Activates with the NM that this pass has read; ends early when the device or NM is another one by now. 0, or not.
static int nm_activate(void)
{
    CallOff before = nm_wait_begin(); // first: later changes are seen by it
    WaitStep step_before = wait_step_set(device_link_read);
    int result = s_identity_outdated ? -1 : device_activate();
    wait_step_set(step_before);
    wait_call_off_set(before);
    return result;
}

void device_init_pass(void)
{
    heartbeat_reset();
    g_enable_init_flag = 0;
    if ((!g_init_done && settings_take() != 0) || device_link_open() != 0) {
        dma_status_set(DMA_PLUGIN_INIT_FAILED, DMA_CAUSE_CLEAR);
        pass_failed();
        return;
    }
    (void)nm_sign_init();
    if (nm_activate() != 0) {
        dma_status_set(DMA_ACTIVATION_FAILED, DMA_CAUSE_KEEP); // activation has set the cause
        log_warn("Device active failed!");
        pass_failed();
        return;
    }
    services_start();
    if (s_identity_outdated)
        restart_device_init();
}

void device_identity_changed(void)
{
    s_identity_outdated = 1; // before the rest: a pass that ends in between sees it
    nm_waits_call_off();     // offline the restart does nothing
    restart_device_init();
}

void restart_device_init(void)
{
    if (!g_init_done.exchange(0))
        return; // offline, or another thread restarts already
    g_restart_count++;
    s_init_retry_stage = 0;
    conn_remove_all_but_device();
    pass_arm(RESTART_DELAY_MS);
    pthread_mutex_lock(&s_bring_up_mutex);
    if (!g_init_done) { // else the closing above took so long that the next pass has put everything right
        stop_timer(&s_udp_detection_timer);
        stop_timer(&s_run_status_timer);
        service_status_disable();
    }
    pthread_mutex_unlock(&s_bring_up_mutex);
}
