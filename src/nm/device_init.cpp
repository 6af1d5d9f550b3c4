#include "nm/device_init.h"

#include <atomic>

#include "device/dev_msg_recv.h"
#include "device/dma_status.h"
#include "nm/activation.h"
#include "nm/heartbeat.h"
#include "nm/init_cfg.h"
#include "nm/nm_session.h"
#include "runtime/log.h"
#include "runtime/plugin_config.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "status/metrics.h"
#include "transport/conn_registry.h"
#include "transport/connect.h"
#include "transport/nm_sign.h"
#include "transport/nm_wait.h"

constexpr int32_t FAILURES_MAX = 4; // one more reads config.ini again and raises the retry stage

static std::atomic<bool> s_identity_outdated{false}; // the init cfg has changed since a pass read it
static std::atomic<bool> s_is_in_pass{false};
static std::atomic<uint32_t> s_failed_passes{0}; // in a row
static int32_t s_init_fail_count;                // main thread only; since the last success or forced re-read

// Reads the init cfg and sees to the message buffers. 0, or -1 (logged).
static int settings_take(void)
{
    log_info("Device initializing...");
    s_identity_outdated = false;
    if (init_cfg_parse() != 0) {
        log_error("Parsing init cfg failed!");
        return -1;
    }
    return dev_msg_has_buffer() || dev_msg_buffer_init() ? 0 : -1;
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

// The fifth failure in a row: everything is read again, and the retries become rarer.
static void settings_give_up(void)
{
    log_error("Init config failed over 5 times, re-initialize!");
    s_init_fail_count = 0;
    g_init_done = 0;
    if (!read_plugin_config())
        log_warn("Read config file failed!");
    nm_session_retry_slow_down();
}

static void pass_failed(void)
{
    dma_status_notify();
    s_init_fail_count++;
    s_failed_passes++;
    if (s_init_fail_count > FAILURES_MAX)
        settings_give_up();
    if (s_identity_outdated)
        nm_session_retry_reset(); // the restart that is due
    log_warn("Init config failed, re-initialize!");
    nm_session_retry_arm();
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

static void pass_run(void)
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
    s_init_fail_count = 0;
    s_failed_passes = 0;
    nm_session_open(udp_handler, run_status_handler);
    dma_status_notify();
    if (s_identity_outdated)
        restart_device_init();
}

void device_init_pass(void)
{
    s_is_in_pass = true;
    pass_run();
    s_is_in_pass = false;
}

void device_init_facts_get(BringUpFacts *facts)
{
    facts->is_in_pass = s_is_in_pass;
    facts->failed_passes = s_failed_passes;
}

static void identity_changed(void)
{
    s_identity_outdated = true; // before the rest: a pass that ends in between sees it
    nm_waits_call_off();        // offline the restart does nothing
    restart_device_init();
}

void reload_init_cfg(void)
{
    init_cfg_redirection_forget();
    int compared = init_cfg_compare();
    if (compared == 1)
        identity_changed();
    else if (compared == 0)
        (void)init_cfg_parse();
}
