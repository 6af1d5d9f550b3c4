// From the cold start to the online state, and one whole command there.
#include <gtest/gtest.h>

#include "harness.h"

// A command by UDP and handshake, its result to NM, the ack back to the device; then NM's "rec" starts the bring-up
// again, of which the device hears nothing.
static void run_main_job(bool https)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, https));
    EXPECT_EQ("{\t\"type\":\"online-status-notify\",\t\"result\":\"online\",\t\"cause\":\"\",\t\"ver\":\"0.1\"}",
              device_sim_frame(stage.device, "online-status-notify", 0).text);

    // Over TLS one record brings the longest command whole.
    const std::string head = "{\"type\":\"reboot\",\"sessionid\":\"s-42\",\"param\":{\"force\":true,\"pad\":\"";
    const std::string command = head + std::string((https ? 5119 : 100) - head.size() - 3, 'x') + "\"}}";
    device_sim_auto_answer(stage.device, "reboot", "{\"type\":\"upgrade-result\",\"result\":\"success\"}");
    nm_sim_queue(stage.nm, command);
    ASSERT_TRUE(device_sim_wait_for(stage.device, "reboot", 1, k_wait_ms));
    EXPECT_EQ(command, device_sim_frame(stage.device, "reboot", 0).text);
    EXPECT_GE(nm_sim_count(stage.nm, "udp"), 1);
    EXPECT_EQ(0, nm_sim_count(stage.nm, "heartbeat")); // UDP was answered, so nothing went over HTTP
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "upgradeResult", 1, k_wait_ms));
    EXPECT_EQ("{\"type\":\"upgrade-result\",\"result\":\"success\",\"sessionid\":\"s-42\"}",
              nm_sim_request(stage.nm, "upgradeResult", 0).body);
    ASSERT_TRUE(device_sim_wait_for(stage.device, "upgrade-ack", 1, k_wait_ms));
    EXPECT_EQ("{\t\"sessionid\":\"s-42\",\t\"type\":\"upgrade-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}",
              device_sim_frame(stage.device, "upgrade-ack", 0).text);

    nm_sim_ask_restart(stage.nm);
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 2, k_wait_ms));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully, start the services ..."));
    EXPECT_TRUE(agent_has_log(stage.agent, "Re-initialize device..."));
    EXPECT_EQ(1, device_sim_count(stage.device, "online-status-notify"));
    EXPECT_FALSE(device_sim_wait_connected(stage.device, 2, 0));
    EXPECT_EQ("", stage_end(&stage));
}

TEST(BringUp, MainJob)
{
    run_main_job(false);
}

TEST(BringUp, MainJobOverTls)
{
    run_main_job(true);
}

// A redirection names a port; the new NM is reached over TLS on the next one, and the device is told.
TEST(BringUp, RedirectedToAnotherNmOverTls)
{
    Stage stage;
    stage_prepare(&stage, false);
    NmOptions options;
    options.https = true;
    NmSim *second = nm_sim_start(options);
    nm_sim_set_activation(stage.nm, {304, "", "127.0.0.1", nm_sim_port(second) - 1, ""});
    ASSERT_TRUE(stage_run(&stage));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "redirection", 1, k_wait_ms));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "online-status-notify", 2, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 0).text, "\"cause\":\"REDIRECTION\""));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 1).text, "\"result\":\"online\""));
    EXPECT_EQ(1, nm_sim_count(stage.nm, "active"));
    EXPECT_EQ("", stage_end(&stage) + nm_sim_wrong(second));
    EXPECT_EQ(1, nm_sim_count(second, "active"));
    nm_sim_stop(second);
}
