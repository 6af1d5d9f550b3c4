// proxy_pluginctl beside a real agent and a simulated device.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device_service.h"
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

// One wrong thing each: a row of config.ini ("section:key"), a key of the init cfg, or a text in place of a file.
static const struct {
    const char *what, *value;
    int status;
    const char *words;
} k_broken[] = {
    {"plugin_config:web_pf_recv_len", "2000000", 1, "is larger than 1M, use default value: 32768!: write a number"},
    {"plugin_config:log_level", "6x", 1, "plugin_config:log_level = 6x is not a number, the agent reads 6"},
    {"plugin_config:log_levl", "6", 1,
     "log_levl is not a key of the agent and without effect: did you mean plugin_config:log_level?"},
    {"device_info:device_web_port", "http", 1, "device_info:device_web_port = http is not a port"},
    {"device_info:device_ip", "127.000.000.0001", 1, "device_info:device_ip is longer than 15 characters"},
    {"device_info:init_cfg", "none", 2, "init cfg none cannot be read: the device has to write it"},
    {"monitor:stuck_s", "0", 1, "monitor:stuck_s is not a number from 1 to 86400, use default: 300!"},
    {"monitor:state_file", "none/state", 1,
     "directory of state_file none cannot be written (No such file or directory)"},
    {"monitor:notify_socket", "none", 1, "notify_socket none cannot be written (No such file or directory)"},
    {"nm_tls:ca_file", "none.pem", 2, "ca_file none.pem cannot be read (No such file or directory)"},
    {"nm_tls:ca_fil", "none.pem", 2, "[nm_tls] cannot be used as it stands"},
    {"config.ini", "[plugin_config\n", 2, "config.ini is broken! Use default value!: the agent reads none of it"},
    {"init", "{\n\"method\": \"http\",\n  oops\n}", 2, "is no JSON from line 3 on"},
    {"dev-sn", "", 2, "\"dev-sn\" is missing in the init cfg"},
    {"ptype", "\"12\"", 2, "\"ptype\" of the init cfg has to be a number"},
    {"pname", "\"LONG\"", 1, "\"pname\" of the init cfg is cut to 511 characters"},
    {"host", "\"no-such-host.invalid\"", 2, "\"host\" of the init cfg does not resolve"},
    {"port", "70000", 2, "Invalid port: 70000!: \"port\" of the init cfg is NM's plain port"},
    {"port", "1", 2, "nobody listens on 127.0.0.1:1, NM: "},
    {"dev_server_port", "1", 2, "nobody listens on 127.0.0.1:1, the device's local agent: start it"},
    {"web_port", "1", 1, "nobody listens on 127.0.0.1:1, the device's web server: remote web will not work"},
    {"ver", "\"1.2\"", 2, "Version mismatch, protocol version: 1.2, plugin version: 1.3"},
    {"interface", "\"none0\"", 2, "Cannot detect IP for interface: none0!: set \"interface\""},
    {"localIp", "\"10.9.8.7\"", 1, "is different with detected_local_ip: '127.0.0.1'"},
    {"max_files", "11", 1, "11 is bigger than the max: 10!: the bound is used instead"},
    {"service-path", "\"/none/service\"", 1, "service-path /none/service cannot be written"},
    {"log_path", "\"/dev/null/log\"", 1, "directory of the log directory /dev/null cannot be written"},
};

// Writes the stage's files with the row's change.
static void row_write(Stage *stage, const std::string &what, std::string value)
{
    const DeviceCfg cfg = stage->cfg;
    const ConfigRows config = stage->config;
    const bool is_file = what == "init" || what == "config.ini";
    if (text_has(value, "LONG"))
        value.replace(value.find("LONG"), 4, std::string(600, 'x'));
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
    for (const auto &row : k_broken) {
        SCOPED_TRACE(std::string(row.what) + " " + row.value);
        row_write(&stage, row.what, row.value);
        const CtlResult result = ctl(check);
        EXPECT_EQ(row.status, result.status) << result.output;
        EXPECT_TRUE(text_has(result.output, row.words)) << result.output;
        EXPECT_EQ(-1, access((stage.agent.dir + "/log").c_str(), F_OK)); // nothing is made
    }
    EXPECT_EQ(2, ctl("check --config /none/config.ini").status);
}

TEST(Ctl, Status)
{
    Stage stage;
    stage_prepare(&stage, false);
    config_set(&stage.config, "monitor:state_file", "state");
    const std::string status = "status --config " + stage.agent.dir + "/config.ini";
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
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
