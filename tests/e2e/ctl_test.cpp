// proxy_pluginctl beside a real agent and a simulated device.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device_service.h"
#include "format_file.h"
#include "harness.h"

struct CtlResult {
    std::string output; // both streams
    int status;
};

static CtlResult ctl(const std::string &arguments)
{
    CtlResult result = {"", -1};
    FILE *pipe = popen((std::string(CTL_COMMAND) + " " + arguments + " 2>&1").c_str(), "r");
    char bytes[4096];
    for (size_t got; pipe && (got = fread(bytes, 1, sizeof(bytes), pipe)) > 0;)
        result.output.append(bytes, got);
    const int ended = pipe ? pclose(pipe) : -1;
    result.status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    return result;
}

// Writes the stage's files with the change of a row of docs/examples/check.md.
static void row_write(Stage *stage, const std::string &what, const std::string &value)
{
    const DeviceCfg cfg = stage->cfg;
    const ConfigRows config = stage->config;
    const bool is_file = what == "init" || what == "config.ini";
    if (text_has(what, ":"))
        config_set(&stage->config, what, value);
    else if (value.empty())
        device_cfg_remove(&stage->cfg, what);
    else if (!is_file)
        device_cfg_set(&stage->cfg, what, value);
    stage_write(*stage);
    EXPECT_TRUE(!is_file || device_write_file(stage->agent.dir + "/" + what, value));
    stage->cfg = cfg;
    stage->config = config;
}

TEST(Ctl, CheckFindsWhatIsBroken)
{
    DeviceService web(serve_web_files), telnet(serve_echo);
    Stage stage;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "web_port", std::to_string(web.port()));
    device_cfg_set(&stage.cfg, "telnet_port", std::to_string(telnet.port()));
    stage_write(stage);
    const std::string check = "check --config " + stage.agent.dir + "/config.ini";
    CtlResult fine = ctl(check);
    EXPECT_EQ(0, fine.status) << fine.output;
    EXPECT_TRUE(text_has(fine.output, "\nfine\n"));
    EXPECT_TRUE(text_has(fine.output, "device_info:device_telnet_port")) << fine.output;
    auto rows = format_table(EXAMPLES_DIR "/check.md");
    EXPECT_LT(20u, rows.size());
    rows.push_back(
        {"pname", '"' + std::string(600, 'x') + '"', "1", "\"pname\" of the init cfg is cut to 511 characters"});
    for (const auto &row : rows) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        row_write(&stage, row[0], row[1]);
        const CtlResult result = ctl(check);
        EXPECT_EQ(row[2], std::to_string(result.status)) << result.output;
        EXPECT_TRUE(text_has(result.output, row[3])) << result.output;
        EXPECT_EQ(-1, access((stage.agent.dir + "/log").c_str(), F_OK)); // nothing is made
    }
    EXPECT_EQ(2, ctl("check --config /none/config.ini").status);
}

TEST(Ctl, Status)
{
    Stage stage;
    stage.config = {{"monitor:state_file", "state"}};
    ASSERT_TRUE(stage_online(&stage, false));
    const std::string status = "status --config " + stage.agent.dir + "/config.ini";
    ASSERT_TRUE(eventually([&] { return ctl(status).status == 0; }));
    const CtlResult online = ctl(status);
    EXPECT_TRUE(text_has(online.output, "online (told to the device: online)")) << online.output;
    EXPECT_EQ(file_text(stage.agent.dir + "/state"), ctl(status + " --json").output);
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(eventually([&] { return ctl(status).status == 1; }));
    kill(stage.agent.pid, SIGSTOP); // nothing is written any more
    EXPECT_TRUE(eventually([&] { return text_has(ctl(status).output, "stuck: the agent last wrote its state"); }));
    EXPECT_EQ(2, ctl(status).status);
    kill(stage.agent.pid, SIGKILL);
    (void)agent_wait_exit(&stage.agent);
    EXPECT_TRUE(text_has(ctl(status).output, "has ended without a word"));
    EXPECT_EQ(2, ctl(status).status);

    const std::pair<const char *, int> rows[] = {{"--version", 0},     {"--help", 0},        {"", 64},
                                                 {"status --jsn", 64}, {"check --json", 64}, {"start", 64}};
    for (const auto &row : rows)
        EXPECT_EQ(row.second, ctl(row.first).status) << row.first;
    EXPECT_EQ("proxy_pluginctl 0.1\n", ctl("--version").output);
}
