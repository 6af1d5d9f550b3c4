// Heartbeats: UDP first, HTTP when UDP stays silent, and what NM's words do.
#include <gtest/gtest.h>

#include "harness.h"

// Five misses in a row go over HTTP as well, the sixth over HTTP alone. Five failures there ask for a new bring-up,
// which brings UDP back.
TEST(Heartbeat, SilentUdpMovesToHttpAndBack)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, -1, ""});
    const int answered = nm_sim_count(stage.nm, "udp");
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "heartbeat", 6, k_wait_ms));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "The time of nonresponse for udp trigger has reached the upper limit! "
                                             "Change to http mode."));
    EXPECT_LE(nm_sim_count(stage.nm, "udp"), answered + 6); // one may have been answered just before the silence
    EXPECT_EQ(nm_sim_request(stage.nm, "heartbeat", 0).conn, nm_sim_request(stage.nm, "heartbeat", 5).conn);

    // A word that comes too late is none, and never one for a later heartbeat; one just in time counts.
    nm_sim_set_fault(stage.nm, "heartbeat", {NM_FAULT_WORD, 2100, 1, "rec"});
    nm_sim_queue(stage.nm, nm_command_forward("ping", "over-http"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", 1, k_wait_ms));
    EXPECT_FALSE(agent_has_log(stage.agent, "Re-initialize device..."));
    nm_sim_set_fault(stage.nm, "heartbeat", {NM_FAULT_WORD, 1900, 1, "rec"});
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "active", 2, k_wait_ms));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Change to http mode."));

    nm_sim_absent(stage.nm);
    nm_sim_clear_faults(stage.nm);
    ASSERT_TRUE(agent_wait_log(&stage.agent, "The time of nonresponse for http trigger has reached the upper limit!"));
    ASSERT_TRUE(nm_sim_return(stage.nm));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 3, k_wait_ms));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "udp", nm_sim_count(stage.nm, "udp") + 1, k_wait_ms));
    EXPECT_EQ("", stage_end(&stage));
}

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
