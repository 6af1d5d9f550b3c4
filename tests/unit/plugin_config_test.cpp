#include <fstream>
#include <sstream>
#include <unistd.h>

#include "runtime/options.h"
#include "runtime/plugin_config.h"
#include "runtime/plugin_info_internal.h"
#include "support.h"

struct WorkingDir : TempDir {
    WorkingDir()
    {
        EXPECT_EQ(0, chdir(path.c_str()));
    }
};

// Reads a config.ini of the given content, if any, over what is in force; returns what was logged and printed.
static std::string read_config(const std::string &content, uint32_t log_level = 6)
{
    if (!content.empty())
        std::ofstream("config.ini") << content;
    LogLines log(log_level);
    EXPECT_EQ(1, read_plugin_config());
    return log.text();
}

TEST(PluginConfig, EveryKeyInOrder)
{
    WorkingDir dir;
    plugin_info_reset_for_test();
    EXPECT_EQ("[WRN] FAILED with checking file: ./config.ini!\n[WRN] ./config.ini is not found! Use default value!\n",
              read_config(""));
    PluginInfo info = info_now();
    Options options;
    options_get(&options);
    EXPECT_EQ(300, options.monitor.stuck_s);
    EXPECT_EQ("127.0.0.1:0 /tmp/deviceplugin/init",
              std::string(info.dev.remote_ip) + ":" + info.dev.remote_port + " " + info.init_cfg_path);

    std::string config, lines = "[INF] Reading config file: ./config.ini ...\n";
    for (const Texts &row : examples("config-ini-log")) {
        config += "[" + row[0] + "]\n" + row[1] + "\n";
        lines += row[2] + "\n";
    }
    EXPECT_EQ(lines, read_config(config));
    info = info_now();
    EXPECT_STREQ("12345", info.dev.remote_port);
    EXPECT_STREQ("10.0.0.1", info.dev_web.remote_ip);
    EXPECT_STREQ("123.123.123.123", info.dev_telnet.remote_ip);
    EXPECT_STREQ("6", info.udp_detection.local_port);

    testing::internal::CaptureStderr(); // the parser complains by itself; a broken file changes nothing
    EXPECT_EQ("[WRN] ./config.ini is broken! Use default value!\n", read_config("[device_info]\nno equals sign\n"));
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ("10.0.0.1", info_now().dev.remote_ip);
    EXPECT_EQ(-5, g_http_forward_len);
}

// What the keys decide that have bounds or are optional, one line each.
static std::string settings()
{
    Options now;
    options_get(&now);
    const MonitorOptions &monitor = now.monitor;
    const RemoteAccessOptions &policy = now.remote_access;
    std::ostringstream text;
    text << "web_pf_recv_len=" << g_http_rsp_len << "\nweb_pf_forward_len=" << g_http_forward_len
         << "\nstart_spread_s=" << now.start_spread_s << "\nlog_secrets=" << g_log_secrets
         << "\nsandbox=" << now.sandbox << "\nstate_file=" << monitor.state_file
         << "\nnotify_socket=" << monitor.notify_socket << "\nstuck_s=" << monitor.stuck_s << "\nweb=" << policy.web
         << "\ntelnet=" << policy.telnet << "\nidle_s=" << policy.idle_s << "\nmax_s=" << policy.max_s
         << "\nallow_hosts=" << policy.allow_hosts << "\naudit_file=" << policy.audit_file
         << (policy.is_unusable ? "\nno tunnel\n" : "\ntunnels\n");
    return text.str();
}

// A value of the policy that is not understood must not count as none; a sandbox level that is not understood is the
// one that takes the capabilities.
TEST(PluginConfig, BoundedAndOptionalKeys)
{
    const std::string x255(255, 'x'), x990(990, 'x'); // the parser takes no longer line
    std::vector<Texts> rows = examples("config-ini");
    rows.push_back({"[monitor]\nstate_file = /" + x255, "",
                    "[ERR] Key: monitor:state_file is longer than 255 bytes and ignored!\n"});
    rows.push_back({"[remote_access]\naudit_file = /" + x255, "no tunnel",
                    "[ERR] Key: remote_access:audit_file is longer than 255 bytes and ignored!\n"
                    "[ERR] [remote_access] cannot be used as it stands, every tunnel is refused!\n"});
    rows.push_back({"[remote_access]\nallow_hosts = " + x990, "allow_hosts=" + x990, ""});
    const WorkingDir dir;
    const std::string level_4 = "[plugin_config]\nlog_level = 4\n", level_set = "Set log_std = 2, log_level = 4.\n";
    EXPECT_EQ(level_set, read_config(level_4, 4));
    const std::string defaults = settings();
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0]);
        EXPECT_EQ(level_set + row[2], read_config(level_4 + row[0] + "\n", 4));
        std::istringstream before(defaults), now(settings());
        std::string changes;
        for (std::string was, is; std::getline(before, was) && std::getline(now, is);) {
            if (is != was)
                changes += (changes.empty() ? "" : ", ") + is;
        }
        EXPECT_EQ(row[1], changes);
    }
}
