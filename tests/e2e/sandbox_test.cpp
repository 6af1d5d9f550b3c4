// The agent without capabilities: each thread has given them up, and everything works.
#include <gtest/gtest.h>

#include <filesystem>
#include <signal.h>
#include <sstream>
#include <unistd.h>

#include "tunnel_stage.h"

// What the lines "NAME: VALUE" of all threads say, each different set of values once.
static std::string threads_say(int pid, const std::vector<std::string> &names)
{
    std::string all;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::istringstream status(file_text(task.path().string() + "/status"));
        std::string values;
        for (std::string name, value; status >> name && std::getline(status, value);)
            for (const auto &wanted : names)
                values += name == wanted + ":" ? name + value + "\n" : "";
        if (!values.empty() && !text_has(all, values)) // else the thread has ended just now
            all += values;
    }
    return all;
}

static const char k_none[] = "CapInh:\t0000000000000000\nCapPrm:\t0000000000000000\nCapEff:\t0000000000000000\n"
                             "CapAmb:\t0000000000000000\nNoNewPrivs:\t1\n";

// An emulator has a thread of its own, which keeps what it had.
static bool threads_have(int pid, const std::vector<std::string> &names, const std::string &expected)
{
    const std::string said = threads_say(pid, names);
    return said == expected || (*PLUGIN_RUNNER != '\0' && text_has(said, expected));
}

static void expect_no_capabilities(const Stage &stage)
{
    EXPECT_TRUE(threads_have(stage.agent.pid, {"CapInh", "CapPrm", "CapEff", "CapAmb", "NoNewPrivs"}, k_none));
    const bool may_lower = geteuid() == 0; // who may not could not use the bounding set either
    EXPECT_TRUE(!may_lower || threads_have(stage.agent.pid, {"CapBnd"}, "CapBnd:\t0000000000000000\n"));
}

TEST(Sandbox, WholeLifeWithoutCapabilities)
{
    DeviceService files(serve_web_files), echo(serve_echo);
    TunnelStage stage;
    stage.config = {{"plugin_config:sandbox", "1"}, {"remote_access:audit_file", "audit"}};
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    EXPECT_TRUE(agent_has_log(stage.agent, "[INF] Sandbox: no capabilities, no new privileges."));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));
    expect_no_capabilities(stage);
    EXPECT_TRUE(answer_of(stage.web->client_port(), "100000 7\n") == noise(100000, 7));
    stage.telnet->send_bytes("x");
    EXPECT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &s) { return s.held == "x"; }));
    ASSERT_TRUE(web_close(&stage) && telnet_close(&stage));

    EXPECT_TRUE(device_sim_send(stage.device, "{\"type\":\"cfg-result\",\"sessionid\":\"s-1\"}"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "cfg-ack", 1, k_wait_ms));
    EXPECT_TRUE(device_service_add(stage.agent.dir + "/service", "{\"name\":\"one\"}"));
    ASSERT_TRUE(stage_command(&stage, nm_command_device_status({"start", 1, "immediate"})));
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "runstatus", 1, k_wait_ms));
    EXPECT_TRUE(nm_sim_wait_for(stage.nm, "working/services", 1, k_wait_ms));
    EXPECT_EQ(2, text_count(file_text(stage.agent.dir + "/audit"), "\n"));
    EXPECT_EQ("", stage_end(&stage));
}

// There is no filter of system calls: the error says so, and the rest holds.
TEST(Sandbox, UnknownLevelIsTheStrictestThereIs)
{
    Stage stage;
    stage.config = {{"plugin_config:sandbox", "2"}};
    ASSERT_TRUE(stage_online(&stage, false));
    EXPECT_TRUE(agent_has_log(stage.agent, "[ERR] Sandbox: level 2 is not built in, level 1 is used!"));
    expect_no_capabilities(stage);
}
