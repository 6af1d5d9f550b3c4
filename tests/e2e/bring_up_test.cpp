// From the cold start to the online state, one whole command there, and again.
#include <gtest/gtest.h>

#include "harness.h"

// The longest command comes whole, in one TLS record, and its ack comes back from NM; then NM's "rec" starts the
// bring-up again, of which the device hears nothing.
TEST(BringUp, MainJobOverTls)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, true));
    std::string command = "{\"type\":\"reboot\",\"sessionid\":\"s-42\",\"param\":{\"force\":true,\"pad\":\"";
    command += std::string(5119 - command.size() - 3, 'x') + "\"}}";
    device_sim_auto_answer(stage.device, "reboot", "{\"type\":\"upgrade-result\",\"result\":\"success\"}");
    nm_sim_queue(stage.nm, command);
    ASSERT_TRUE(device_sim_wait_for(stage.device, "upgrade-ack", 1, k_wait_ms));
    EXPECT_EQ(command, device_sim_frame(stage.device, "reboot", 0).text);
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "upgrade-ack", 0).text, "\"s-42\"")); // as in the result at NM

    nm_sim_ask_restart(stage.nm);
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 2, k_wait_ms));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully, start the services ..."));
    EXPECT_EQ(1, device_sim_count(stage.device, "online-status-notify"));
    EXPECT_FALSE(device_sim_wait_connected(stage.device, 2, 0));
    EXPECT_EQ("", stage_end(&stage));
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
    EXPECT_TRUE(device_sim_wait_for(stage.device, "online-status-notify", 2, k_wait_ms));
    EXPECT_EQ(1, device_sim_count(stage.device, "redirection"));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 0).text, "\"cause\":\"REDIRECTION\""));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 1).text, "\"result\":\"online\""));
    EXPECT_EQ(1, nm_sim_count(stage.nm, "active"));
    EXPECT_EQ(1, nm_sim_count(second, "active"));
    EXPECT_EQ("", stage_end(&stage) + nm_sim_wrong(second));
    nm_sim_stop(second);
}
