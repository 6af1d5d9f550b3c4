// SIGTERM in whatever state: the process ends within two seconds with the signal's number as its status.
#include <gtest/gtest.h>

#include <csignal>

#include <unistd.h>

#include "harness.h"

static const int k_stop_max_ms = 2000;

static void expect_quick_stop(Stage *stage, int signal_number)
{
    const long long start = monotonic_ms();
    EXPECT_EQ(agent_stop(&stage->agent, signal_number), signal_number);
    EXPECT_LE(monotonic_ms() - start, k_stop_max_ms);
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

TEST(Stop, WaitingForTheRetryWithoutDevice)
{
    Stage stage;
    stage_prepare(&stage, false);
    device_sim_absent(stage.device);
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init config failed, re-initialize!"));
    expect_quick_stop(&stage, SIGTERM);
}

TEST(Stop, WaitingForAnAnswer)
{
    Stage stage;
    stage_prepare(&stage, false);
    NmFault silence;
    silence.kind = NM_FAULT_SILENCE;
    nm_sim_set_fault(stage.nm, "active", silence);
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 1, k_wait_ms));
    expect_quick_stop(&stage, SIGTERM);
    EXPECT_FALSE(agent_has_log(stage.agent, "select timeout!"));
    EXPECT_EQ(device_sim_count(stage.device, ""), 0); // a wait that a stop has cut is no failure to tell
}

TEST(Stop, TlsHandshakeWithASilentPeer)
{
    Stage stage;
    stage_prepare(&stage, true);
    NmFault silence;
    silence.kind = NM_FAULT_SILENCE;
    nm_sim_set_fault(stage.nm, "accept", silence);
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(nm_sim_wait_connections(stage.nm, 1, k_wait_ms));
    expect_quick_stop(&stage, SIGTERM);
}

TEST(Stop, ConnectingIntoABlackHole)
{
    Stage stage;
    std::vector<int> descriptors;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "port", std::to_string(black_hole_port(&descriptors)));
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "TCP connecting")); // to the device
    ASSERT_TRUE(agent_wait_log(&stage.agent, "TCP connecting")); // to NM
    expect_quick_stop(&stage, SIGTERM);
    EXPECT_FALSE(agent_has_log(stage.agent, "Connection timeout"));
    for (int fd : descriptors) {
        close(fd);
    }
}
