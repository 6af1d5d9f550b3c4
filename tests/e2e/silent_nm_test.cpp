// An NM over https that takes connections and never says a word of TLS, met by each thing that waits for it; then the
// device is moved to another NM. Such a wait has no time-out: the move must end it.
#include <gtest/gtest.h>

#include "tunnel_stage.h"

using Cause = std::function<void(TunnelStage *stage)>;

static bool arrives(TunnelStage *stage, const char *request, const Cause &cause)
{
    const int before = nm_sim_count(stage->nm, request);
    cause(stage);
    return nm_sim_wait_for(stage->nm, request, before + 1, k_wait_ms);
}

static Cause device_says(const char *text)
{
    return [text](TunnelStage *stage) { EXPECT_TRUE(device_sim_send(stage->device, text)); };
}

static Cause nm_says(const std::string &command)
{
    return [command](TunnelStage *stage) { nm_sim_queue(stage->nm, command); };
}

static const Cause k_each_second = nm_says(nm_command_device_status({"start", 1, "immediate"}));
static const Cause k_seldom = nm_says(nm_command_device_status({"start", 120, "immediate"}));

// NM's end of the tunnel is a silent one too.
template <class Sim>
static void start_mute(TunnelStage *stage, Sim *end, bool (*command)(TunnelStage *, const std::string &))
{
    end->set_mute(true);
    EXPECT_TRUE(command(stage, "start"));
    EXPECT_TRUE(end->wait(k_wait_ms, [](const TunnelStats &stats) { return stats.connected; }));
    end->set_mute(false);
}

enum Moment {
    SILENT,  // NM has fallen silent, and a connection to it follows
    BEFORE,  // NM falls silent next, and a connection to it follows by itself
    INSTEAD, // the silence has been met
};

static const struct SilentRow {
    const char *name; // of the request at NM
    Cause cause;
    Moment moment = SILENT;  // of the cause
    bool link_drops = false; // the device's link drops, as the device sees no answer
} k_rows[] = {
    {"handshake", nm_says(nm_command_forward("ping", ""))},
    {"heartbeat",
     [](TunnelStage *s) {
         nm_sim_set_fault(s->nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
     }},
    {"cfgResult", device_says("{\"type\":\"cfg-result\",\"sessionid\":\"s\"}")},
    {"alarm", device_says("{\"type\":\"alarm-info\",\"msgId\":7,\"payload\":{\"level\":2}}"), SILENT, true},
    {"callhistory", device_says("{\"type\":\"call-history\",\"payload\":[1,2]}")},
    {"working/services", device_says("{\"type\":\"service-status\"}")},
    {"active",
     [](TunnelStage *s) {
         nm_sim_ask_restart(s->nm);
         EXPECT_TRUE(agent_wait_log(&s->agent, "Re-initialize device..."));
     },
     BEFORE},
    {"runstatus", [](TunnelStage *s) { EXPECT_TRUE(arrives(s, "runstatus", k_each_second)); }, BEFORE},
    {"web tunnel", [](TunnelStage *s) { start_mute(s, s->web.get(), web_command); }, INSTEAD},
    {"telnet tunnel", [](TunnelStage *s) { start_mute(s, s->telnet.get(), telnet_command); }, INSTEAD},
};

// Everything that reaches NM reaches the one in force. Leaves a kept connection and no tunnel; beats come every second.
static void expect_all_works(TunnelStage *stage)
{
    ASSERT_TRUE(arrives(stage, "runstatus", k_each_second) && arrives(stage, "working/services", k_seldom));
    for (const SilentRow &row : k_rows)
        ASSERT_TRUE(row.moment != SILENT || arrives(stage, row.name, row.cause)) << row.name;
    ASSERT_EQ("true", stage_result(stage));
    ASSERT_TRUE(web_open(stage) && telnet_open(stage) && web_close(stage) && telnet_close(stage));
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

    if (row.moment != SILENT)
        row.cause(&stage);
    const int before = nm_sim_connections(stage.nm); // first: a late heartbeat may be the one that meets it
    stage_nm_silent(&stage);
    if (row.moment == SILENT)
        row.cause(&stage);
    EXPECT_TRUE(row.moment == INSTEAD || nm_sim_wait_connections(stage.nm, before + 1, k_wait_ms));

    // The init cfg names a healthy NM, and the device says so.
    NmOptions options = stage.nm_options;
    options.ip = "127.0.0.2"; // another address: the same one with another port asks for no new activation
    NmSim *silent = std::exchange(stage.nm, nm_sim_start(options));
    device_cfg_set_text(&stage.cfg, "host", options.ip);
    device_cfg_set(&stage.cfg, "port", std::to_string(nm_sim_port(stage.nm) - 1));
    EXPECT_TRUE(device_write_file(stage.agent.dir + "/init", device_cfg_text(stage.cfg)));
    if (row.link_drops)
        device_sim_drop(stage.device);
    else
        EXPECT_TRUE(device_sim_send(stage.device, "{\"type\":\"init-cfg-changed\"}"));
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "active", 1, 22000)); // 10 s of a restart, behind 8 s of a post that hangs
    EXPECT_TRUE(stage_fast_heartbeat(&stage));
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle)); // before a command for the same tunnel ends its old set-up
    expect_all_works(&stage);
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
    EXPECT_EQ("", stage_end(&stage) + nm_sim_wrong(silent));
    nm_sim_stop(silent);
}

// The rows spend their time waiting.
TEST(SilentNm, AMoveEndsEveryWait)
{
    side_by_side(std::size(k_rows), [](size_t i) { run_silent_row(k_rows[i]); });
}
