// Process entry: start-up order, work threads, main loop, closing sequence.

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "device/dev_msg_handle.h"
#include "device/dev_msg_recv.h"
#include "monitor/monitor.h"
#include "nm/device_init.h"
#include "nm/heartbeat.h"
#include "nm/init_cfg.h"
#include "nm/nm_msg.h"
#include "nm/nm_msg_table.h"
#include "nm/nm_session.h"
#include "remote/remote_telnet.h"
#include "remote/remote_web.h"
#include "runtime/log.h"
#include "runtime/log_file.h"
#include "runtime/plugin_config.h"
#include "runtime/plugin_info.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "runtime/thread_watch.h"
#include "runtime/timer.h"
#include "runtime/wait.h"
#include "runtime/work_thread.h"
#include "status/service_status.h"
#include "transport/conn_registry.h"
#include "transport/nm_post.h"

constexpr int LOOP_PAUSE_MS = 10;
constexpr int THREAD_EXIT_POLL_MS = 2;
constexpr int LATE_THREADS_LIMIT_MS = 1000;
constexpr int STATUS_START_FAILED = 255;
constexpr int LARGE_BLOCK = 64 * 1024; // bytes

// The threads of the process:
//
//   thread                        | body                 | cadence            | owns
//   ------------------------------+----------------------+--------------------+------------------------------------
//   main "proxy_plugin"           | main_loop            | 10 ms and the      | start-up, bring-up passes, receive
//                                 |                      | device poll, 200 ms| side of the device link, log files,
//                                 |                      |                    | signals, closing sequence
//   remote_web                    | remote_web_turn      | 1 ms in a tunnel,  | NM side of the remote-web tunnel
//                                 |                      | else rests         |
//   remote_telnet                 | remote_telnet_turn   | 5 ms in a tunnel,  | telnet relay
//                                 |                      | else rests         |
//   dev_service_status_report     | service_status_turn  | 205 ms while it    | service reports and their timer
//                                 |                      | watches the file's |
//                                 |                      | size, else rests   |
//   dev_msg_handle                | dev_msg_handle_turn  | 5 ms while bytes   | the message being handled, reload
//                                 |                      | wait, else rests   | of the init cfg
//   remote_web_msg_handle_thread  | in remote_web        | lives with a tunnel| device side of the remote-web tunnel
//   timer service                 | in timer             | waits              | watches all timers
//   monitor, when configured      | monitor_turn         | 1 s                | state file, supervisor's socket
//   timer threads, one per expiry | udp_handler,         | by timer, may      | nothing; NM's commands run on
//                                 | run_status_handler,  | overlap            | udp_handler's
//                                 | service status timer |                    |
//
// INT, TERM, QUIT and ALRM reach main only. Connections are used on held copies by whoever needs them.
//
// Lock order, outermost first. Long locks are held over waits:
//   tunnel command -> NM post -> send order of a connection
// Short locks never are, and no long lock is taken under one:
//   bring-up -> service record -> web pool -> registry -> TLS session -> settings, options, DMA status,
//   what modules tell of themselves -> device message buffer, timers, watched threads -> log
// A restart of the bring-up may run under the NM post lock and takes no long lock itself.
//
// Whose wait is it? Every wait that a thread can make, how long it lasts by itself, and what ends it early:
// s: a stop of the process. r: the end of the last NM (g_restart_count: a restart, a changed identity, another address
// of NM), for work that has it as its call-off: heartbeats, handshakes and their commands, run status, service reports,
// device messages, an activation. t: a command for the same tunnel, for that tunnel's work. c: the connection is closed
// by another thread, as a restart closes every registered one but the device's.
//
//   wait                         | for                                | own time-out      | ended early by
//   -----------------------------+------------------------------------+-------------------+----------------------------
//   TCP connect                  | the peer's answer                  | 2 s               | s r t
//   TLS handshake                | the peer's next flight, nine times | none, or as set   | s r t
//   liveness test                | room or bytes on a connection      | 2 s               | s r t c
//   answer over HTTP             | NM                                 | 5 s, kept 2 s     | s r; c when kept
//   answer over UDP              | NM's datagram                      | 1 s               | s r c
//   answers of a tunnel's set-up | NM, twice                          | 5 s each          | s r t c
//   room for the rest of a unit  | a peer that takes no byte          | 2 s               | s c; stream: r t too. A
//                                |                                    |                   | begun message would cost a
//                                |                                    |                   | link that others share
//   pauses of a send             | 10 or 100 ms to pass               | that long         | s r t
//   relay of a tunnel            | bytes or room on either side       | its patience      | s t c
//   device link, receive step    | bytes of the device                | 200 ms            | s c
//   post lock of NM              | the post before, by these rules    | none              | s r
//   send order of a connection   | the unit before, by these rules    | none              | s r t
//   lock of a tunnel             | its thread or command, which "t"   | none              | s r
//                                | makes leave                        |                   |
//   record lock, service file    | the device's writer                | 100 ms, two tries | s r
//   samples, records, retries,   | time to pass                       | 10 ms to 1 s      | s r
//   polls of the service file,   |                                    |                   |
//   turns of the monitor         |                                    |                   |
//   doorbells, timer service     | work                               | none              | s, the bell
//   cadence of a loop            | time to pass                       | 1 to 10 ms        | nothing
//   short locks                  | a few instructions; the log's: one | none              | nothing
//                                | line or a change of file           |                   |
//
// What only the far end can end:
//   name look-up                 | the resolver, some 30 s: the library's own wait. Never under a lock. A stop waits
//                                | for the thread up to the hard deadline, then ends the process.
//   line to a full pipe          | the reader of standard output; it stops every thread that logs. Ends as a look-up.
//   close of a stalled peer      | 1 s of linger, stated; never under a lock, not at a stop.
//   file reads and writes        | the file system. Devices and FIFOs are opened without blocking.
static WorkThread s_work_threads[] = {
    {"remote_web", remote_web_turn, "Create remote_web thread error!"},
    {"remote_telnet", remote_telnet_turn, "Create remote_telnet thread error!"},
    {"dev_service_status_report", service_status_turn, "Create device status report thread error!"},
    {"dev_msg_handle", dev_msg_handle_turn, "Create device message handle thread error!"},
};

// Only when config.ini wants a state file or names a supervisor.
static WorkThread s_monitor_thread = {"monitor", monitor_turn, "Create monitor thread error!"};

static int start_work_threads(void)
{
    for (WorkThread &thread : s_work_threads) {
        if (work_thread_start(&thread) != 0)
            return 0;
    }
    return !monitor_is_wanted() || work_thread_start(&s_monitor_thread) == 0;
}

static bool is_every_thread_gone(void)
{
    if (!s_monitor_thread.exited || !s_monitor_thread.gone)
        return false;
    for (const WorkThread &thread : s_work_threads) {
        if (!thread.exited || !thread.gone)
            return false;
    }
    return true;
}

// Everything printed arrives; nothing is destroyed, for other threads may still be running.
[[noreturn]] static void process_end(int status)
{
    log_mute();
    fflush(stdout);
    fcloseall();
    _exit(status);
}

static void stop_signals_ignore(void)
{
    sigset_t signals;
    stop_signals_fill(&signals);
    sigdelset(&signals, SIGALRM); // the hard deadline
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// Timer callbacks and the device side of a web tunnel leave by themselves; we wait at most this long for them.
static void late_threads_await(void)
{
    int64_t end_ms = wait_now_ms() + LATE_THREADS_LIMIT_MS;
    while ((timer_callbacks_running() > 0 || remote_web_device_thread_running()) && wait_now_ms() < end_ms)
        wait_cadence_ms(THREAD_EXIT_POLL_MS);
}

// The end after a stop request, on main at a quit point. The exit flag goes up behind the first line, so that no
// thread's "exited" line overtakes it.
[[noreturn]] static void closing_sequence(int status)
{
    stop_signals_ignore();
    stop_arm_deadline(); // again: another thread may have replaced the alarm
    log_info("SIG: %d is received, ready to exit!", status);
    g_exit_flag = 1;
    while (!is_every_thread_gone())
        wait_cadence_ms(THREAD_EXIT_POLL_MS);
    late_threads_await();
    printf("[%s:%d] Function: %s calling for exit, ret: %d\n", "main.cpp", 212, "sig_quit_handler", status);
    log_info("~~~~~~~~ Bye ~~~~~~~~\n");
    conn_remove_all();
    log_close();
    process_end(status);
}

// The end when the exit flag was raised without a stop request.
[[noreturn]] static void main_loop_shutdown(void)
{
    stop_hold_begin();
    stop_request(0); // for its effects: all waits end, the deadline is armed
    while (!is_every_thread_gone())
        wait_cadence_ms(1000);
    late_threads_await();
    conn_remove_all();
    free_device_buffers();
    log_info("System exiting, ret: 0.");
    process_end(0);
}

static void sig_quit_handler(int signal_number)
{
    stop_request(signal_number);
}

// A launcher may have closed the standard descriptors: no socket and no log file may take their numbers.
static void standard_descriptors_reserve(void)
{
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

static void signals_install(void)
{
    signal(SIGINT, sig_quit_handler);
    signal(SIGTERM, sig_quit_handler);
    signal(SIGQUIT, sig_quit_handler);
    sigset_t signals; // a launcher may have blocked them
    stop_signals_fill(&signals);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

static void os_info_log(void)
{
    char text[512] = {};
    int fd = open("/proc/version", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        log_info("READ FAILED!");
        return;
    }
    if (read(fd, text, sizeof(text) - 1) < 0)
        text[0] = '\0';
    close(fd);
    log_info("OS INFO: %s", text);
}

static void plugin_version_set(void)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.plugin_version, PLUGIN_VERSION);
    plugin_info_edit_commit(&edit);
}

static void print_build_banner(void)
{
    log_info("~~~~~~~~ Build: %s %s ~~~~~~~~", __DATE__, __TIME__);
    log_info("~~~~~~~~ COMMIT_ID: %s ~~~~~~~~\n", PLUGIN_COMMIT_ID);
}

// The calls that go up, against the direction of the includes: a module below leaves to one above what it cannot know.
static void upward_calls_register(void)
{
    // The device sets directory and limits of the log files in its init cfg.
    log_settings_reader_set(init_cfg_parse_log);
    // A heartbeat's answer may restart the bring-up or fetch a command of NM.
    nm_post_heartbeat_answered_set(heartbeat_answered);
    // The device asks for a reload of the init cfg, which NM's session reads, and for a service report.
    static const DevMsgCalls k_dev_msg_calls = {reload_init_cfg, service_status_device_request};
    dev_msg_calls_set(&k_dev_msg_calls);
}

// What the modules need before a thread runs. 0, or -1 without a descriptor (errno set).
static int modules_init(void)
{
    nm_msg_table_init();
    if (dev_msg_recv_init() != 0 || remote_web_init() != 0 || remote_telnet_init() != 0)
        return -1;
    return service_status_init();
}

// No thread would ever be woken. The line goes to the console whatever is configured: syslog and log files may want the
// same descriptors, and config.ini may not have been read for lack of them.
static void doorbell_missing_log(void)
{
    g_log_std = 2;
    log_error("Create doorbell failed: %s!", error_text(errno).text);
}

// On a 64 MiB device one large message must not enlarge the heap for good: large blocks go back to the system when they
// are freed, and the threads share one heap instead of growing one each.
static void memory_give_back(void)
{
    mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK);
    mallopt(M_TRIM_THRESHOLD, LARGE_BLOCK);
    mallopt(M_ARENA_MAX, 1);
}

static int process_start(void)
{
    memory_give_back();
    signal(SIGPIPE, SIG_IGN); // first of all: a closed standard output raises it too
    standard_descriptors_reserve();
    setlinebuf(stdout);
    work_thread_set_name("proxy_plugin");
    if (stop_init(closing_sequence) != 0) {
        doorbell_missing_log();
        return -1;
    }
    os_info_log();
    signals_install();
    if (!read_plugin_config()) {
        log_error("Read config file failed!");
        return -1;
    }
    upward_calls_register();
    if (modules_init() != 0) {
        doorbell_missing_log();
        return -1;
    }
    plugin_version_set();
    if (!log_init()) {
        log_error("Log initiating failed!");
        return -1;
    }
    print_build_banner();
    // Nothing would notice later that no timer runs: the heartbeat is one.
    if (timer_service_start() != 0) {
        log_error("Timer service start failed!");
        return -1;
    }
    if (!start_work_threads()) {
        log_error("Work threads start failed!");
        return -1;
    }
    nm_session_begin();
    return 0;
}

static void main_loop(void)
{
    while (!g_exit_flag) {
        thread_watch_begin();
        stop_quit_point();
        if (g_enable_init_flag)
            device_init_pass();
        dev_msg_recv();
        log_split_check();
        (void)wait_sleep_ms(LOOP_PAUSE_MS); // a quit point too
    }
}

int main()
{
    if (process_start() != 0) {
        stop_request(STATUS_START_FAILED); // for its deadline: a thread may hang in a write to a full pipe
        process_end(STATUS_START_FAILED);
    }
    main_loop();
    main_loop_shutdown();
}
