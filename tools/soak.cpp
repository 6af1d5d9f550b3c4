// soak - the real binary between the simulators for minutes or hours: all traffic at once, faults at random, and at the
// end an account of every result that the device has sent (soak_account.h).
// soak [MINUTES [SEED [http|https [TEXT]]]]: with TEXT only faults that have it in their names
#include <algorithm>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

#include "soak_account.h"
#include "soak_device.h"
#include "soak_faults.h"
#include "soak_log.h"
#include "soak_people.h"
#include "soak_state.h"

constexpr int LAST_PHASE_MS = 45000;       // without faults
constexpr int WARM_UP_MS = 60000;          // until every buffer and stack has been used
constexpr int RSS_GROWTH_KIB = 1024;       // of the highest figure, in the second half of the time against the first
constexpr int STOP_MS = 2000;              // from SIGTERM to the end
constexpr int DEVICE_SOCKET_BUFFER = 4096; // bytes, of the device's services

// Of the agent.
struct Usage {
    int rss_kib, descriptors, threads, cpu_ms;
};

static Usage usage_now()
{
    const int pid = g_soak.stage->agent.pid;
    return {proc_rss_kib(pid), proc_descriptors(pid), proc_threads(pid), proc_cpu_ms(pid)};
}

static std::string usage_text(const Usage &usage)
{
    return "RSS " + std::to_string(usage.rss_kib) + " KiB, fds " + std::to_string(usage.descriptors) + ", threads " +
           std::to_string(usage.threads) + ", CPU " + std::to_string(usage.cpu_ms) + " ms";
}

static void progress(const Usage &usage)
{
    std::string line = "results";
    for (const char *name : {"sent", "arrived", "acked true", "acked false", "excused"})
        line += std::string(" ") + name + " " + std::to_string(soak_counted(name)) + ",";
    soak_say(line + " " + usage_text(usage));
}

// Highest resident size in each half of the time after the warm-up.
struct Memory {
    int first_kib = 0, second_kib = 0;
};

// Keeps the account and the figures until end_ms, or until the agent has ended.
static Memory watch(long long begin_ms, long long end_ms)
{
    Memory memory;
    const long long warm_ms = begin_ms + WARM_UP_MS;
    long long next_ms = begin_ms;
    for (long long now_ms; (now_ms = monotonic_ms()) < end_ms; soak_pause(50)) {
        account_update();
        const Usage usage = usage_now();
        if (usage.threads < 0) {
            soak_problem("the agent has ended");
            break;
        }
        if (now_ms > warm_ms) {
            int &highest = now_ms < (warm_ms + end_ms) / 2 ? memory.first_kib : memory.second_kib;
            highest = std::max(highest, usage.rss_kib);
        }
        if (now_ms >= next_ms) {
            progress(usage);
            next_ms = now_ms + 10000;
        }
    }
    return memory;
}

// Joins the threads and keeps the account meanwhile: some wait for it.
static void join_all(std::vector<std::thread> *threads)
{
    std::atomic<bool> joined{false};
    std::thread joiner([&] {
        for (std::thread &thread : *threads)
            thread.join();
        joined = true;
    });
    for (; !joined; soak_pause(20))
        account_update();
    joiner.join();
}

static bool start(TunnelStage *stage, bool https, const DeviceService &files, const DeviceService &echo)
{
    stage_prepare(stage, https);
    config_set(&stage->config, "plugin_config:log_std", "0"); // to the ring of log files, as on a device
    config_set(&stage->config, "plugin_config:log_level", "6");
    device_cfg_set(&stage->cfg, "web_port", std::to_string(files.port()));
    device_cfg_set(&stage->cfg, "telnet_port", std::to_string(echo.port()));
    device_cfg_set(&stage->cfg, "max_dev_msg_size", "1100"); // KiB: the largest result and its frame
    device_cfg_set(&stage->cfg, "dev_msg_buffer_size", "4096");
    stage_write(*stage);
    stage->options.tls = https;
    stage->web = std::make_unique<WebTunnelSim>(stage->options);
    stage->telnet = std::make_unique<TelnetTunnelSim>(stage->options);
    if (!agent_start(&stage->agent) || !device_sim_wait_for(stage->device, "online-status-notify", 1, k_wait_ms))
        return false;
    faults_set_periods();
    return nm_sim_wait_for(stage->nm, "runstatus", 2, k_wait_ms); // the periods are in force
}

static void end_checks(const Usage &idle, const Memory &memory)
{
    const auto drained = [] {
        account_update();
        return account_waiting() == 0 && nm_sim_queued(g_soak.stage->nm) == 0;
    };
    soak_check(eventually(drained), "every result has its ack, every command is taken");
    soak_check(stage_ping(g_soak.stage) && account_is_online(), "online, and hears the device");
    const auto returned = [&] {
        const Usage now = usage_now();
        return now.descriptors <= idle.descriptors && now.threads <= idle.threads;
    };
    soak_check(eventually(returned), "descriptors and threads as at first");
    soak_say("idle at first: " + usage_text(idle));
    soak_say("idle at last: " + usage_text(usage_now()));
    soak_check(memory.second_kib - memory.first_kib <= RSS_GROWTH_KIB,
               "highest RSS of the first half " + std::to_string(memory.first_kib) + " KiB, of the second " +
                   std::to_string(memory.second_kib) + " KiB");
}

// SIGTERM in the middle of a download, with the telnet tunnel open.
static void stop_check()
{
    soak_check(web_open(g_soak.stage) && people_open_telnet(), "the tunnels open once more");
    g_soak.epoch++;
    std::thread browser(people_download, 20000000, 1);
    const uint64_t before = g_soak.stage->web->stats().bytes_in;
    g_soak.stage->web->wait(k_wait_ms, [&](const WebTunnelStats &stats) { return stats.bytes_in > before + 100000; });
    const long long term_ms = monotonic_ms();
    const int status = agent_stop(&g_soak.stage->agent, SIGTERM);
    const long long took_ms = monotonic_ms() - term_ms;
    browser.join();
    soak_check(status == SIGTERM && took_ms < STOP_MS,
               "SIGTERM ends with status " + std::to_string(status) + " after " + std::to_string(took_ms) + " ms");
}

// All traffic and faults, until minutes after begin_ms.
static Memory run(long long begin_ms, double minutes, unsigned seed, const std::string &only)
{
    const long long end_ms = begin_ms + (long long)(minutes * 60000);
    std::vector<std::thread> threads;
    threads.emplace_back(device_run, seed);
    threads.emplace_back(people_run_web, seed + 1);
    threads.emplace_back(people_run_telnet, seed + 2);
    threads.emplace_back(faults_run, seed + 3, end_ms - LAST_PHASE_MS, only);
    const Memory memory = watch(begin_ms, end_ms);
    g_soak.traffic = false;
    join_all(&threads);
    return memory;
}

static int soak(double minutes, unsigned seed, bool https, const std::string &only)
{
    const long long begin_ms = monotonic_ms();
    DeviceService files(serve_web_files, true, DEVICE_SOCKET_BUFFER);
    DeviceService echo(serve_echo, true, DEVICE_SOCKET_BUFFER);
    TunnelStage stage;
    g_soak.stage = &stage;
    if (!start(&stage, https, files, echo)) {
        soak_problem("the agent does not come online");
        return 1;
    }
    const Usage idle = usage_now();
    end_checks(idle, run(begin_ms, minutes, seed, only));
    stop_check();
    account_update();
    account_judge();
    const std::string tunnels = tunnel_problems(stage);
    soak_check(tunnels.empty(), "NM's ends of the tunnels have found nothing wrong" + tunnels);
    soak_say(soak_counts());
    const int problems = soak_problems();
    soak_say(problems == 0 ? "all is right" : std::to_string(problems) + " things are wrong");
    return problems == 0 ? 0 : 1;
}

int main(int argc, char **argv)
{
    const double minutes = argc > 1 ? atof(argv[1]) : 5;
    const unsigned seed = argc > 2 ? (unsigned)strtoul(argv[2], nullptr, 10) : std::random_device()();
    const bool https = argc > 3 && strcmp(argv[3], "https") == 0;
    char parameters[128];
    snprintf(parameters, sizeof(parameters), "%.1f minutes, seed %u, %s", minutes, seed, https ? "https" : "http");
    soak_say(parameters);
    return soak(minutes, seed, https, argc > 4 ? argv[4] : "");
}
