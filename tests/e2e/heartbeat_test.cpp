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
    const int before = nm_sim_count(stage.nm, "udp");
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 3, k_wait_ms));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "udp", before + 1, k_wait_ms));
    EXPECT_EQ("", stage_end(&stage));
}

static const struct {
    const char *name;
    NmFaultKind kind;
    int delay_ms;
    std::string text;
    bool missed; // goes over HTTP as well
} k_datagrams[] = {
    {"other case", NM_FAULT_WORD, 0, "active", false},
    {"late, yet in time", NM_FAULT_WORD, 300, "ACTIVE", false},
    {"trailing newline", NM_FAULT_WORD, 0, "ACTIVE\n", true},
    {"longer word", NM_FAULT_WORD, 0, "ACTIVES", true},
    {"127 bytes and more", NM_FAULT_WORD, 0, std::string(500, 'A'), true},
    {"empty", NM_FAULT_WORD, 0, "", true},
    {"too late", NM_FAULT_NONE, 1300, "", true}, // stays in the socket, an answer to the next one
    {"twice", NM_FAULT_TWICE, 0, "", false},
    {"from another port", NM_FAULT_STRANGER, 0, "", false},
};

// Each row is one heartbeat of its own; a miss is followed by the same body over HTTP.
TEST(Heartbeat, DatagramAnswers)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    for (const auto &row : k_datagrams) {
        SCOPED_TRACE(row.name);
        const int over_http = nm_sim_count(stage.nm, "heartbeat");
        nm_sim_set_fault(stage.nm, "udp", {row.kind, row.delay_ms, 1, row.text});
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, "udp", nm_sim_count(stage.nm, "udp") + 2, k_wait_ms)); // the row is done
        EXPECT_EQ(row.missed ? 1 : 0, nm_sim_count(stage.nm, "heartbeat") - over_http);
    }
    EXPECT_EQ(nm_sim_request(stage.nm, "udp", -1).body, nm_sim_request(stage.nm, "heartbeat", -1).body);
    EXPECT_EQ("", stage_end(&stage));
}
