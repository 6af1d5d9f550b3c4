// An NM over https that takes connections and never says a word of TLS, met by each thing that waits for it; then the
// device is moved to another NM. Such a wait has no time-out: the move must end it.
#include <gtest/gtest.h>

#include <poll.h>

#include <mutex>
#include <thread>

#include "tunnel_stage.h"

static bool arrives(TunnelStage *stage, const char *request, const std::function<void()> &cause)
{
    const int before = nm_sim_count(stage->nm, request);
    cause();
    return nm_sim_wait_for(stage->nm, request, before + 1, k_wait_ms);
}

static void strategy_queue(TunnelStage *stage, int system_period_s)
{
    NmStrategy strategy;
    strategy.action = "start";
    strategy.system_period_s = system_period_s;
    strategy.mode = "immediate";
    nm_sim_queue(stage->nm, nm_command_device_status(strategy));
}

static void result_send(TunnelStage *stage)
{
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"cfg-result\",\"sessionid\":\"s\"}"));
}

static void alarm_send(TunnelStage *stage)
{
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"alarm-info\",\"msgId\":7,\"payload\":{\"level\":2}}"));
}

static void history_send(TunnelStage *stage)
{
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"call-history\",\"payload\":[1,2]}"));
}

static void report_ask(TunnelStage *stage)
{
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"service-status\"}"));
}

static void udp_silence(TunnelStage *stage, int times)
{
    nm_sim_set_fault(stage->nm, "udp", {NM_FAULT_SILENCE, 0, times, ""});
}

// Everything that reaches NM reaches the one in force. Leaves a kept connection and no tunnel; beats come every second.
static void expect_all_works(TunnelStage *stage)
{
    ASSERT_TRUE(arrives(stage, "heartbeat", [&] { udp_silence(stage, 1); }));
    const int acks = device_sim_count(stage->device, "cfg-ack");
    result_send(stage);
    ASSERT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", acks + 1, k_wait_ms));
    ASSERT_TRUE(text_has(device_sim_frame(stage->device, "cfg-ack", -1).text, "\"result\":true"));
    ASSERT_TRUE(arrives(stage, "alarm", [&] { alarm_send(stage); }));
    ASSERT_TRUE(arrives(stage, "callhistory", [&] { history_send(stage); }));
    ASSERT_TRUE(arrives(stage, "runstatus", [&] { strategy_queue(stage, 1); }));
    ASSERT_TRUE(arrives(stage, "working/services", [&] { strategy_queue(stage, 120); }));
    ASSERT_TRUE(web_open(stage) && telnet_open(stage));
    ASSERT_TRUE(web_close(stage) && telnet_close(stage));
}

static void fall_silent(TunnelStage *stage)
{
    nm_sim_set_fault(stage->nm, "accept", {NM_FAULT_SILENCE, 0, -1, ""});
    nm_sim_drop_connections(stage->nm);
}

// NM falls silent, then comes what wants to reach it.
static void silence_meets(TunnelStage *stage, const std::function<void()> &cause)
{
    fall_silent(stage);
    const int before = nm_sim_connections(stage->nm);
    cause();
    EXPECT_TRUE(nm_sim_wait_connections(stage->nm, before + 1, k_wait_ms));
}

static void meet_activation(TunnelStage *stage)
{
    silence_meets(stage, [&] { nm_sim_ask_restart(stage->nm); });
}

static void meet_handshake(TunnelStage *stage)
{
    silence_meets(stage, [&] { nm_sim_queue(stage->nm, nm_command_forward("ping", "")); });
}

static void meet_heartbeat(TunnelStage *stage)
{
    silence_meets(stage, [&] { udp_silence(stage, -1); });
}

static void meet_result(TunnelStage *stage)
{
    silence_meets(stage, [&] { result_send(stage); });
}

static void meet_alarm(TunnelStage *stage)
{
    silence_meets(stage, [&] { alarm_send(stage); });
}

static void meet_history(TunnelStage *stage)
{
    silence_meets(stage, [&] { history_send(stage); });
}

static void meet_service_report(TunnelStage *stage)
{
    silence_meets(stage, [&] { report_ask(stage); });
}

static void meet_run_status(TunnelStage *stage)
{
    EXPECT_TRUE(arrives(stage, "runstatus", [&] { strategy_queue(stage, 1); }));
    silence_meets(stage, [] {});
}

// NM's end of the tunnel is the silent one.
template <class Sim> static void meet_tunnel(TunnelStage *stage, const char *type)
{
    static std::vector<std::unique_ptr<TunnelSim>> s_silent; // they outlive the move
    static std::mutex s_lock;
    TunnelSimOptions options = stage->options;
    options.mute = true;
    auto silent = std::make_unique<Sim>(options);
    NmTunnel command;
    command.type = type;
    command.port = silent->command_port();
    nm_sim_queue(stage->nm, nm_command_tunnel(command));
    EXPECT_TRUE(silent->wait(k_wait_ms, [](const TunnelStats &stats) { return stats.connected; }));
    fall_silent(stage);
    std::lock_guard<std::mutex> guard(s_lock);
    s_silent.push_back(std::move(silent));
}

static void meet_web(TunnelStage *stage)
{
    meet_tunnel<WebTunnelSim>(stage, "remote-web");
}

static void meet_telnet(TunnelStage *stage)
{
    meet_tunnel<TelnetTunnelSim>(stage, "remote-telnet");
}

struct SilentRow {
    const char *name;
    void (*meet)(TunnelStage *stage); // returns when the silence is met
    bool link_drops = false;          // the device's link drops, as the device sees no answer
};

static const SilentRow k_rows[] = {
    {"activation", meet_activation},
    {"handshake", meet_handshake},
    {"heartbeat", meet_heartbeat},
    {"result", meet_result},
    {"alarm", meet_alarm, true},
    {"call history", meet_history},
    {"service report", meet_service_report},
    {"run status", meet_run_status},
    {"web tunnel", meet_web},
    {"telnet tunnel", meet_telnet},
};

// The init cfg names a healthy NM, and the device says so. Returns the silent one.
static NmSim *move(TunnelStage *stage, bool link_drops)
{
    NmSim *silent = stage->nm;
    NmOptions options;
    options.https = true;
    options.ip = "127.0.0.2"; // another address: the same one with another port asks for no new activation
    options.serial = "SN00000001";
    stage->nm = nm_sim_start(options);
    device_cfg_set_text(&stage->cfg, "host", options.ip);
    device_cfg_set(&stage->cfg, "port", std::to_string(nm_sim_port(stage->nm) - 1));
    stage_write(*stage);
    EXPECT_TRUE(device_service_add(stage->agent.dir + "/service", device_service_record(1)));
    if (link_drops) {
        device_sim_drop(stage->device);
    } else {
        EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
    }
    return silent;
}

// The least in a second, so that no beat is counted.
static std::pair<int, int> usage_at_rest(int pid)
{
    std::pair<int, int> least = {proc_descriptors(pid), proc_threads(pid)};
    for (int i = 0; i < 50; i++) {
        poll(nullptr, 0, 20);
        least = {std::min(least.first, proc_descriptors(pid)), std::min(least.second, proc_threads(pid))};
    }
    return least;
}

static bool usage_returns(int pid, const std::pair<int, int> &idle)
{
    return eventually([&] {
        const std::pair<int, int> now = usage_at_rest(pid);
        return now.first <= idle.first && now.second <= idle.second;
    });
}

static void run_silent_row(const SilentRow &row)
{
    SCOPED_TRACE(row.name);
    DeviceService files(serve_web_files), echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    ASSERT_TRUE(device_service_add(stage.agent.dir + "/service", device_service_record(1)));
    expect_all_works(&stage);
    const std::pair<int, int> idle = usage_at_rest(stage.agent.pid);

    row.meet(&stage);
    NmSim *silent = move(&stage, row.link_drops);
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "active", 1, 22000)); // 10 s of a restart, behind 8 s of a post that hangs
    EXPECT_TRUE(stage_fast_heartbeat(&stage));
    EXPECT_TRUE(usage_returns(stage.agent.pid, idle)); // before a command for the same tunnel ends its old set-up
    expect_all_works(&stage);
    EXPECT_TRUE(usage_returns(stage.agent.pid, idle));
    EXPECT_EQ(stage_end(&stage), "");
    EXPECT_EQ(nm_sim_wrong(silent), "");
    nm_sim_stop(silent);
}

// The rows spend their time waiting: they run side by side.
TEST(SilentNm, AMoveEndsEveryWait)
{
    std::vector<std::thread> rows;
    for (const SilentRow &row : k_rows) {
        rows.emplace_back(run_silent_row, std::cref(row));
    }
    for (std::thread &row : rows) {
        row.join();
    }
}
