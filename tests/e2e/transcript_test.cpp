// A device's life in small: whatever it logs without an optional key of config.ini, its requests and frames among it,
// is an interface.
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <sstream>

#include "tunnel_stage.h"

// Without what differs from run to run.
static std::string settled(std::string text, const Stage &stage)
{
    const std::pair<std::string, std::string> rules[] = {
        {stage.agent.dir, "DIR"},
        {"127\\.0\\.0\\.1(:|, Port: |\\)?, local \\(127.0.0.1:)[0-9]+", "127.0.0.1$1PORT"},
        {"(_port is set to: |Socket_fd: |socket: |socket_fd = |socket |timerid: 0x|port\":\\s*)[0-9a-f]+", "$1N"},
        {"(Content-Length|User-Agent|secretKey|sign[a-zA-Z]*|timestamp)(: |\":\\s*)[^\n,]*", "$1$2..."},
        {"(Build|COMMIT_ID|OS INFO): .*", "$1: ..."},
    };
    for (const auto &rule : rules)
        text = std::regex_replace(text, std::regex(rule.first), rule.second);
    return text;
}

// The log by thread, each thread's lines in their order without those that repeat the one before. Then the first
// request of each name at NM, and the first frame of each type at the device.
static std::string log_by_thread(const Stage &stage)
{
    static const std::regex k_prefix("^\\[[-0-9]+ [:.0-9]+ (.*):[0-9]+\\](\\[[A-Z]+\\] .*)");
    std::map<std::string, std::string> threads, last;
    std::istringstream lines(settled(agent_output(stage.agent), stage));
    std::string thread = "start";
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        const bool is_line = std::regex_match(line, match, k_prefix);
        thread = is_line ? match[1].str() : thread;
        if (text_has(line, "[main.cpp:")) // printed by main between lines of other threads
            thread = "proxy_plugin";
        const std::string text = is_line ? match[2].str() : line;
        // A slot that is still connecting may be looked at, or not.
        if (std::exchange(last[thread], text) != text && !text_has(text, "[WRN] Invalid socket: "))
            threads[thread] += text + "\n";
    }
    std::string all;
    for (const auto &lines_of : threads)
        all += "== " + lines_of.first + "\n" + lines_of.second;
    return all;
}

static void live(TunnelStage *stage)
{
    device_sim_auto_answer(stage->device, "reboot", "{\"type\":\"upgrade-result\",\"result\":\"success\"}");
    ASSERT_TRUE(stage_command(stage, "{\"type\":\"reboot\",\"sessionid\":\"s-1\"}"));
    ASSERT_TRUE(device_sim_wait_for(stage->device, "upgrade-ack", 1, k_wait_ms));
    ASSERT_TRUE(device_sim_send(stage->device, "{\"type\":\"alarm-info\",\"msgId\":7,\"payload\":{\"level\":2}}"));
    ASSERT_TRUE(device_sim_wait_for(stage->device, "alarm-ack", 1, k_wait_ms));
    ASSERT_TRUE(stage_ping(stage));
    ASSERT_TRUE(device_service_add(stage->agent.dir + "/service", "{\"name\":\"one\"}"));
    ASSERT_TRUE(stage_command(stage, nm_command_device_status({"start", 1, "immediate"})));
    ASSERT_TRUE(nm_sim_wait_for(stage->nm, "working/services", 1, k_wait_ms));
    ASSERT_TRUE(web_open(stage));
    EXPECT_EQ(noise(20000, 7), answer_of(stage->web->client_port(), "20000 7\n"));
    ASSERT_TRUE(web_close(stage) && telnet_open(stage));
    stage->telnet->send_bytes("x");
    ASSERT_TRUE(stage->telnet->wait(k_wait_ms, [](const TelnetTunnelStats &s) { return s.held == "x"; }));
    ASSERT_TRUE(telnet_close(stage));
    ASSERT_TRUE(nm_sim_wait_for(stage->nm, "udp", nm_sim_count(stage->nm, "udp") + 2, k_wait_ms));
    EXPECT_EQ("", stage_end(stage));
}

TEST(Transcript, AsItAlwaysWas)
{
    DeviceService files(serve_web_files), echo(serve_echo);
    TunnelStage stage;
    stage.config = {{"plugin_config:log_level", "6"}};
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &files, &echo));
    live(&stage);
    EXPECT_EQ(file_text(TRANSCRIPT_FILE), log_by_thread(stage));
}
