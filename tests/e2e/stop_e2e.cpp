// SIGTERM in whatever state: the process ends within two seconds with the signal's number as its status.
#include <gtest/gtest.h>

#include <csignal>

#include <unistd.h>

#include "harness.h"

static void expect_quick_stop(Stage *stage, int signal_number)
{
    const long long start = monotonic_ms();
    EXPECT_EQ(agent_stop(&stage->agent, signal_number), signal_number);
    EXPECT_LE(monotonic_ms() - start, 2000);
    const std::string output = agent_output(stage->agent);
    size_t at = 0;
    for (const std::string &line : {"SIG: " + std::to_string(signal_number) + " is received, ready to exit!",
                                    std::string("remote_web thread exited."), std::string("Bye")}) {
        at = output.find(line, at);
        EXPECT_NE(at, std::string::npos) << line;
    }
}

TEST(Stop, Idle)
{
    for (int signal_number : {SIGTERM, SIGINT, SIGQUIT}) {
        Stage stage;
        ASSERT_TRUE(stage_online(&stage, false));
        expect_quick_stop(&stage, signal_number);
        EXPECT_TRUE(device_sim_wait_disconnected(stage.device, k_wait_ms));
    }
}

static std::vector<int> s_descriptors;

// Where the bring-up waits for what never comes.
static const struct {
    const char *name;
    bool https;
    const char *silent; // request that NM does not answer
    void (*prepare)(Stage *);
    bool (*waits)(Stage *);
} k_moments[] = {
    {"for the retry, without a device", false, "none", [](Stage *s) { device_sim_absent(s->device); },
     [](Stage *s) { return agent_wait_log(&s->agent, "Init config failed, re-initialize!"); }},
    {"for an answer", false, "active", nullptr,
     [](Stage *s) { return nm_sim_wait_for(s->nm, "active", 1, k_wait_ms); }},
    {"in a TLS handshake", true, "accept", nullptr,
     [](Stage *s) { return nm_sim_wait_connections(s->nm, 1, k_wait_ms); }},
    {"connecting into a black hole", false, "none",
     [](Stage *s) { device_cfg_set(&s->cfg, "port", std::to_string(black_hole_port(&s_descriptors))); },
     [](Stage *s) { // after the device
         return agent_wait_log(&s->agent, "TCP connecting") && agent_wait_log(&s->agent, "TCP connecting");
     }},
};

// A wait that a stop has cut is no failure to tell.
TEST(Stop, Waiting)
{
    for (const auto &moment : k_moments) {
        SCOPED_TRACE(moment.name);
        Stage stage;
        stage_prepare(&stage, moment.https);
        nm_sim_set_fault(stage.nm, moment.silent, {NM_FAULT_SILENCE, 0, -1, ""});
        if (moment.prepare)
            moment.prepare(&stage);
        ASSERT_TRUE(stage_run(&stage) && moment.waits(&stage));
        expect_quick_stop(&stage, SIGTERM);
        EXPECT_FALSE(agent_has_log(stage.agent, "timeout!") || agent_has_log(stage.agent, "Connection timeout..."));
        EXPECT_EQ(device_sim_count(stage.device, ""), 0);
    }
    for (int fd : s_descriptors)
        close(fd);
}
