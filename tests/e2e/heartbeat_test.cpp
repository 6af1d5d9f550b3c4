// Heartbeats over UDP, and which answers are none.
#include <gtest/gtest.h>

#include "tunnel_stage.h"

// Each row is one heartbeat of its own; a miss is followed by the same body over HTTP.
TEST(Heartbeat, DatagramAnswers)
{
    const struct {
        const char *name;
        bool is_missed; // goes over HTTP as well
        std::string text;
        int delay_ms = 0;
        NmFaultKind kind = NM_FAULT_WORD;
    } rows[] = {
        {"other case", false, "active"},
        {"late, yet in time", false, "ACTIVE", 300},
        {"trailing newline", true, "ACTIVE\n"},
        {"longer word", true, "ACTIVES"},
        {"127 bytes and more", true, std::string(500, 'A')},
        {"empty", true, ""},
        {"too late", true, "", 1300, NM_FAULT_NONE}, // stays in the socket, an answer to the next one
        {"twice", false, "", 0, NM_FAULT_TWICE},
        {"from another port", false, "", 0, NM_FAULT_STRANGER},
    };
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const int over_http = nm_sim_count(stage.nm, "heartbeat");
        nm_sim_set_fault(stage.nm, "udp", {row.kind, row.delay_ms, 1, row.text});
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, "udp", nm_sim_count(stage.nm, "udp") + 2, k_wait_ms)); // the row is done
        EXPECT_EQ(row.is_missed ? 1 : 0, nm_sim_count(stage.nm, "heartbeat") - over_http);
    }
    EXPECT_EQ(nm_sim_request(stage.nm, "udp", -1).body, nm_sim_request(stage.nm, "heartbeat", -1).body);
    EXPECT_EQ("", stage_end(&stage));
}

// Eight handshakes at once, one of them at its command, the others with an NM that does not answer their TLS: the ninth
// takes the place of the oldest without an answer.
TEST(Heartbeat, HungHandshakesGiveWay)
{
    TunnelStage stage;
    stage.options.mute = true;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, nullptr, nullptr) && telnet_command(&stage, "start"));
    ASSERT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &stats) { return stats.connected; }));
    const int before = nm_sim_connections(stage.nm);
    stage_nm_silent(&stage);
    nm_sim_queue(stage.nm, nm_command_forward("ping", ""));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Handshaking failed!"));
    EXPECT_TRUE(nm_sim_wait_connections(stage.nm, before + 8, k_wait_ms));
    EXPECT_FALSE(nm_sim_wait_connections(stage.nm, before + 9, 0));
    nm_sim_clear_faults(stage.nm);
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", 1, k_wait_ms));
    EXPECT_FALSE(agent_has_log(stage.agent, "Process handshake response failed!")); // the command was left alone
    EXPECT_EQ("", stage_end(&stage));
}
