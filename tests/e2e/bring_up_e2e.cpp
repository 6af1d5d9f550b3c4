// From the cold start to the online state, over every road that NM can send the agent on.
#include <gtest/gtest.h>

#include "harness.h"

static void run_main_job(bool https)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, https));
    EXPECT_EQ(device_sim_frame(stage.device, "online-status-notify", 0).text,
              "{\t\"type\":\"online-status-notify\",\t\"result\":\"online\",\t\"cause\":\"\",\t\"ver\":\"0.1\"}");

    const std::string command = "{\"type\":\"reboot\",\"sessionid\":\"s-42\",\"param\":{\"delay\":3,\"force\":true}}";
    device_sim_auto_answer(stage.device, "reboot", "{\"type\":\"upgrade-result\",\"result\":\"success\"}");
    nm_sim_queue(stage.nm, command);
    ASSERT_TRUE(device_sim_wait_for(stage.device, "reboot", 1, k_wait_ms));
    EXPECT_EQ(device_sim_frame(stage.device, "reboot", 0).text, command);
    EXPECT_GE(nm_sim_count(stage.nm, "udp"), 1);
    EXPECT_EQ(nm_sim_count(stage.nm, "heartbeat"), 0); // UDP was answered, so nothing went over HTTP

    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "upgradeResult", 1, k_wait_ms));
    EXPECT_EQ(nm_sim_request(stage.nm, "upgradeResult", 0).body,
              "{\"type\":\"upgrade-result\",\"result\":\"success\",\"sessionid\":\"s-42\"}");
    ASSERT_TRUE(device_sim_wait_for(stage.device, "upgrade-ack", 1, k_wait_ms));
    EXPECT_EQ(
        device_sim_frame(stage.device, "upgrade-ack", 0).text,
        "{\t\"sessionid\":\"s-42\",\t\"type\":\"upgrade-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}");
    EXPECT_EQ(stage_end(&stage), "");
}

// Online, a command by UDP and handshake, its result to NM, the ack back to the device.
TEST(BringUp, MainJob)
{
    run_main_job(false);
    run_main_job(true);
}

TEST(BringUp, RefusedThenAccepted)
{
    Stage stage;
    stage_prepare(&stage, false);
    nm_sim_set_activation(stage.nm, {403, "unknown device", "", 0, ""});
    ASSERT_TRUE(stage_run(&stage));
    ASSERT_TRUE(device_sim_wait_for(stage.device, "online-status-notify", 1, k_wait_ms));
    EXPECT_EQ(
        device_sim_frame(stage.device, "online-status-notify", 0).text,
        "{\t\"type\":\"online-status-notify\",\t\"result\":\"device_activation_failed\",\t\"cause\":\"unknown device\","
        "\t\"ver\":\"0.1\"}");

    nm_sim_set_activation(stage.nm, NmActivation()); // the next pass comes 10 s later
    ASSERT_TRUE(device_sim_wait_for(stage.device, "online-status-notify", 2, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 1).text,
                         "\"result\":\"online\",\t\"cause\":\"\""));
    EXPECT_EQ(nm_sim_count(stage.nm, "active"), 2);
    EXPECT_EQ(stage_end(&stage), "");
}

// A redirection names a port; the new NM is reached over TLS on the next one, and the device is told.
TEST(BringUp, RedirectedToAnotherNmOverTls)
{
    Stage stage;
    stage_prepare(&stage, false);
    NmOptions options;
    options.https = true;
    NmSim *second = nm_sim_start(options);
    ASSERT_NE(second, nullptr);
    nm_sim_set_activation(stage.nm, {304, "", "127.0.0.1", nm_sim_port(second) - 1, ""});
    ASSERT_TRUE(stage_run(&stage));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "redirection", 1, k_wait_ms));
    EXPECT_TRUE(nm_sim_wait_for(second, "active", 1, k_wait_ms));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "online-status-notify", 2, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 0).text, "\"cause\":\"REDIRECTION\""));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", 1).text, "\"result\":\"online\""));
    EXPECT_EQ(nm_sim_count(stage.nm, "active"), 1);
    EXPECT_EQ(stage_end(&stage) + nm_sim_wrong(second), "");
    nm_sim_stop(second);
}

// A changed identity restarts the bring-up; other changes are taken over without one.
TEST(BringUp, InitCfgChanged)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    device_cfg_set(&stage.cfg, "max_size", "512");
    stage_write(stage);
    ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"init-cfg-changed\"}"));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "max_log_file_size: 524288"));
    EXPECT_EQ(nm_sim_count(stage.nm, "active"), 1);

    device_cfg_set_text(&stage.cfg, "pversion", "2.5.0");
    stage_write(stage);
    ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"init-cfg-changed\"}"));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 2, k_wait_ms));
    EXPECT_TRUE(text_has(nm_sim_request(stage.nm, "active", 1).body, "\"pversion\":\"2.5.0\""));
    EXPECT_EQ(stage_end(&stage), "");
}

// The device's agent comes up late, goes away and returns: the agent finds it each time.
TEST(BringUp, DeviceAgentComesLateAndRestarts)
{
    Stage stage;
    stage_prepare(&stage, false);
    device_sim_absent(stage.device);
    ASSERT_TRUE(stage_run(&stage));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init config failed, re-initialize!"));
    ASSERT_TRUE(device_sim_return(stage.device));
    ASSERT_TRUE(stage_wait_online(&stage) && stage_fast_heartbeat(&stage));
    device_sim_absent(stage.device);
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Device TCP connection lost! Re-initialize device..."));
    ASSERT_TRUE(device_sim_return(stage.device));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "active", 2, k_wait_ms));
    EXPECT_EQ(stage_end(&stage), "");
}
