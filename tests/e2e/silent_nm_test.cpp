// An NM over https that takes connections and never says a word of TLS, met by each thing that waits for it; then the
// device is moved to another NM. Such a wait has no time-out: the move must end it.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "tunnel_stage.h"

using Cause = void (*)(TunnelStage *stage);

static bool arrives(TunnelStage *stage, const char *request, Cause cause)
{
    const int before = nm_sim_count(stage->nm, request);
    cause(stage);
    return nm_sim_wait_for(stage->nm, request, before + 1, k_wait_ms);
}

static void reports_each_second(TunnelStage *stage)
{
    nm_sim_queue(stage->nm, nm_command_device_status({"start", 1, "immediate"}));
}

static void reports_seldom(TunnelStage *stage)
{
    nm_sim_queue(stage->nm, nm_command_device_status({"start", 120, "immediate"}));
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

// Everything that reaches NM reaches the one in force. Leaves a kept connection and no tunnel; beats come every second.
static void expect_all_works(TunnelStage *stage)
{
    ASSERT_TRUE(arrives(stage, "heartbeat", [](TunnelStage *s) {
        nm_sim_set_fault(s->nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
    }));
    const int acks = device_sim_count(stage->device, "cfg-ack");
    result_send(stage);
    ASSERT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", acks + 1, k_wait_ms));
    ASSERT_TRUE(text_has(device_sim_frame(stage->device, "cfg-ack", -1).text, "\"result\":true"));
    ASSERT_TRUE(arrives(stage, "alarm", alarm_send) && arrives(stage, "callhistory", history_send));
    ASSERT_TRUE(arrives(stage, "runstatus", reports_each_second));
    ASSERT_TRUE(arrives(stage, "working/services", reports_seldom));
    ASSERT_TRUE(web_open(stage) && telnet_open(stage) && web_close(stage) && telnet_close(stage));
}

static void fall_silent(TunnelStage *stage)
{
    nm_sim_set_fault(stage->nm, "accept", {NM_FAULT_SILENCE, 0, -1, ""});
    nm_sim_drop_connections(stage->nm);
}

// NM's end of the tunnel is the silent one.
template <class Sim> static void meet_tunnel(TunnelStage *stage, const char *type)
{
    static std::vector<std::unique_ptr<TunnelSim>> s_silent; // they outlive the move
    static std::mutex s_lock;
    TunnelSimOptions options = stage->options;
    options.mute = true;
    auto silent = std::make_unique<Sim>(options);
    nm_sim_queue(stage->nm, nm_command_tunnel({type, "start", "127.0.0.1", silent->command_port()}));
    EXPECT_TRUE(silent->wait(k_wait_ms, [](const TunnelStats &stats) { return stats.connected; }));
    fall_silent(stage);
    std::lock_guard<std::mutex> guard(s_lock);
    s_silent.push_back(std::move(silent));
}

struct SilentRow {
    const char *name;
    Cause cause;                            // of a connection to NM, which has fallen silent; null: comes by itself
    void (*meet)(TunnelStage *s) = nullptr; // before that; returns when the silence is met if there is no connection
    bool is_tunnel = false;
    bool link_drops = false; // the device's link drops, as the device sees no answer
};

static const SilentRow k_rows[] = {
    {"activation", [](TunnelStage *s) { nm_sim_ask_restart(s->nm); }},
    {"handshake", [](TunnelStage *s) { nm_sim_queue(s->nm, nm_command_forward("ping", "")); }},
    {"heartbeat",
     [](TunnelStage *s) {
         nm_sim_set_fault(s->nm, "udp", {NM_FAULT_SILENCE, 0, -1, ""});
     }},
    {"result", result_send},
    {"alarm", alarm_send, nullptr, false, true},
    {"call history", history_send},
    {"service report",
     [](TunnelStage *s) { EXPECT_TRUE(device_sim_send(s->device, "{\"type\":\"service-status\"}")); }},
    {"run status", nullptr, [](TunnelStage *s) { EXPECT_TRUE(arrives(s, "runstatus", reports_each_second)); }},
    {"web tunnel", nullptr, [](TunnelStage *s) { meet_tunnel<WebTunnelSim>(s, "remote-web"); }, true},
    {"telnet tunnel", nullptr, [](TunnelStage *s) { meet_tunnel<TelnetTunnelSim>(s, "remote-telnet"); }, true},
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
    if (link_drops)
        device_sim_drop(stage->device);
    else
        EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
    return silent;
}

static void run_silent_row(const SilentRow &row)
{
    SCOPED_TRACE(row.name);
    DeviceService files(serve_web_files), echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    ASSERT_TRUE(device_service_add(stage.agent.dir + "/service", device_service_record(1)));
    expect_all_works(&stage);
    const std::pair<int, int> idle = proc_usage_at_rest(stage.agent.pid);

    if (row.meet)
        row.meet(&stage);
    if (!row.is_tunnel) {
        const int before = nm_sim_connections(stage.nm); // first: a late heartbeat may be the one that meets it
        fall_silent(&stage);
        if (row.cause)
            row.cause(&stage);
        EXPECT_TRUE(nm_sim_wait_connections(stage.nm, before + 1, k_wait_ms));
    }
    NmSim *silent = move(&stage, row.link_drops);
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "active", 1, 22000)); // 10 s of a restart, behind 8 s of a post that hangs
    EXPECT_TRUE(stage_fast_heartbeat(&stage));
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle)); // before a command for the same tunnel ends its old set-up
    expect_all_works(&stage);
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
    EXPECT_EQ("", stage_end(&stage) + nm_sim_wrong(silent));
    nm_sim_stop(silent);
}

// The rows spend their time waiting: they run side by side.
TEST(SilentNm, AMoveEndsEveryWait)
{
    std::vector<std::thread> rows;
    for (const SilentRow &row : k_rows)
        rows.emplace_back(run_silent_row, std::cref(row));
    for (std::thread &row : rows)
        row.join();
}
