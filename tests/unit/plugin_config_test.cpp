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
static std::string read_config(const char *content)
{
    if (content)
        std::ofstream("config.ini") << content;
    LogLines log(6);
    EXPECT_EQ(1, read_plugin_config());
    return log.text();
}

static const char *k_full_config = "[Plugin_Config]\n"
                                   "LOG_STD = 1\nlog_level = 0x7\nplugin_eth = eth7\nplugin_ip = 10.0.0.2\n"
                                   "tcp_to_device_local_port = 1\nweb_to_device_local_port = 2\n"
                                   "telnet_to_device_local_port = 3\nweb_pf_recv_len = 010\nweb_pf_forward_len = -5\n"
                                   "web_pf_wait_ms = 9\nweb_to_nm_local_port = 4\ntelnet_to_nm_local_port = 5\n"
                                   "udp_detection_local_port = 6\n"
                                   "[device_info]\n"
                                   "device_ip = 10.0.0.1\ndevice_port = 123456\ninit_cfg = /a/b\n"
                                   "device_telnet_ip = 123.123.123.1234\n";

#define LOCAL_END(link, port)                                  \
    "[INF] Key: plugin_config:plugin_ip is set to: 10.0.0.2\n" \
    "[INF] Key: plugin_config:" link "_local_port is set to: " port "\n"

TEST(PluginConfig, EveryKeyInOrder)
{
    WorkingDir dir;
    plugin_info_reset_for_test();
    EXPECT_EQ("[WRN] FAILED with checking file: ./config.ini!\n[WRN] ./config.ini is not found! Use default value!\n",
              read_config(nullptr));
    PluginInfo info = info_now();
    EXPECT_EQ("127.0.0.1:0 /tmp/deviceplugin/init",
              std::string(info.dev.remote_ip) + ":" + info.dev.remote_port + " " + info.init_cfg_path);
    EXPECT_EQ("[INF] Reading config file: ./config.ini ...\n"
              "[INF] Key: plugin_config:log_std is set to: 1\n"
              "[INF] Key: plugin_config:log_level is set to: 0x7\n"
              "Set log_std = 1, log_level = 7.\n"
              "[INF] Key: device_info:device_ip is set to: 10.0.0.1\n"
              "[INF] Key: device_info:device_port is set to: 123456\n"
              "[INF] Key: device_info:init_cfg is set to: /a/b\n"
              "[INF] Key: plugin_config:plugin_eth is set to: eth7\n" LOCAL_END(
                  "tcp_to_device",
                  "1") "[INF] Key: device_info:device_web_ip not found, use default: 10.0.0.1\n"
                       "[INF] Key: device_info:device_web_port not found, use default: 80\n" LOCAL_END(
                           "web_to_device",
                           "2") "[INF] Key: device_info:device_telnet_ip is set to: 123.123.123.1234\n"
                                "[INF] Key: device_info:device_telnet_port not found, use default: 23333\n" LOCAL_END(
                                    "telnet_to_device",
                                    "3") "[INF] Key: plugin_config:web_pf_recv_len is set to: 010\n"
                                         "[INF] Key: plugin_config:web_pf_forward_len is set to: -5\n"
                                         "[INF] Key: plugin_config:web_pf_wait_ms is set to: 9\n"
                                         "[INF] Set g_http_rsp_len = 8, g_http_forward_len = -5, "
                                         "g_sleep_between_http_rsp_ms = 9.\n\n" LOCAL_END("web_to_nm", "4")
                                             LOCAL_END("telnet_to_nm", "5") LOCAL_END("udp_detection", "6"),
              read_config(k_full_config));
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

TEST(PluginConfig, BufferLengthBounds)
{
    static const struct {
        const char *key, *text;
        int32_t value;
        const char *warning;
    } k_cases[] = {
        {"web_pf_recv_len", "0", 32768, "g_http_rsp_len is set to 0, use default value: 32768!"},
        {"web_pf_recv_len", "1048576", 1048576, nullptr},
        {"web_pf_recv_len", "1048577", 32768, "g_http_rsp_len is larger than 1M, use default value: 32768!"},
        {"web_pf_recv_len", "-5", 32768, "g_http_rsp_len is larger than 1M, use default value: 32768!"},
        {"web_pf_recv_len", "99999999999999999999", 32768, "g_http_rsp_len is larger than 1M"},
        {"web_pf_forward_len", "08", 10240, "g_http_forward_len is set to 0, use default value: 10240!"},
        {"web_pf_forward_len", "1048577", 10240, "g_http_forward_len is larger than 1M, use default value: 10240!"},
        {"web_pf_forward_len", "-5", -5, nullptr},
        {"web_pf_forward_len", "", 10240, "g_http_forward_len is set to 0"},
    };
    WorkingDir dir;
    for (const auto &c : k_cases) {
        std::string config = std::string("[plugin_config]\nlog_std = 1\n") + c.key + " = " + c.text + "\n";
        std::string log = read_config(config.c_str());
        EXPECT_EQ(c.value, strcmp(c.key, "web_pf_recv_len") ? g_http_forward_len : g_http_rsp_len) << config;
        EXPECT_EQ(c.warning != nullptr, log.find("[WRN]") != std::string::npos) << log;
        EXPECT_NE(std::string::npos, log.find(c.warning ? c.warning : ""));
    }
}

// A value of the policy that is not understood must not count as none; a sandbox level that is not understood is the
// one that takes the capabilities.
TEST(PluginConfig, OptionalKeys)
{
    const std::string x255(255, 'x'), x990(990, 'x'); // the parser takes no longer line
    const std::string none = "|300|0|1 1 0 0||";
    const std::string stuck_s = "[ERR] Key: monitor:stuck_s is not a number from 1 to 86400, use default: 300!\n";
    const std::string refused = "[ERR] [remote_access] cannot be used as it stands, every tunnel is refused!\n";
    const std::string level = "[ERR] Key: plugin_config:sandbox is not a number from 0 to 2, use default: 1!\n";
    const struct {
        std::string keys, values, line; // the line is the only kind of error
    } rows[] = {
        {"[plugin_config]\nlog_std = 1\n", none, ""},
        {"[monitor]\nstate_file = /run/s\nstuck_s = 0x20\n", "/run/s|32|0|1 1 0 0||",
         "[INF] Key: monitor:state_file is set to: /run/s\n[INF] Key: monitor:stuck_s is set to: 0x20\n"},
        {"[monitor]\nstuck_s = 86400\n", "|86400|0|1 1 0 0||", ""},
        {"[monitor]\nstuck_s = 0\n", none, "[INF] Key: monitor:stuck_s is set to: 0\n" + stuck_s},
        {"[monitor]\nstuck_s = 9s\n", none, stuck_s},
        {"[monitor]\nstate_file = /" + x255 + "\n", none,
         "[ERR] Key: monitor:state_file is longer than 255 bytes and ignored!\n"},
        {"[remote_access]\nweb = 0\ntelnet = 0\nidle_s = 600\nmax_s = 31536000\nallow_hosts = a 10.0.0.0/8\n"
         "audit_file = /a\n",
         "|300|0|0 0 600 31536000|a 10.0.0.0/8|/a", ""},
        {"[remote_access]\nallow_hosts =\n", none, ""},
        {"[remote_access]\nallow_hosts = " + x990 + "\n", "|300|0|1 1 0 0|" + x990 + "|", ""},
        {"[remote_access]\nweb = 2\n", none, refused},
        {"[remote_access]\ntelnet = off\n", none, refused},
        {"[remote_access]\nidle_s = -1\n", none, refused},
        {"[remote_access]\nidle_s =\n", none, refused},
        {"[remote_access]\nmax_s = 31536001\n", none, refused},
        {"[remote_access]\naudit_file = /" + x255 + "\n", none, refused},
        {"[remote_access]\nalow_hosts = 10.0.0.1\n", none, refused},
        {"[plugin_config]\nsandbox = 0\n", none, ""},
        {"[plugin_config]\nsandbox = 2\n", "|300|2|1 1 0 0||", ""},
        {"[plugin_config]\nsandbox = 3\n", "|300|1|1 1 0 0||", level},
        {"[plugin_config]\nsandbox = yes\n", "|300|1|1 1 0 0||", level},
    };
    const WorkingDir dir;
    Options now;
    options_get(&now);
    EXPECT_EQ("  300", std::string(now.monitor.state_file) + " " + now.monitor.notify_socket + " " +
                           std::to_string(now.monitor.stuck_s)); // before any file
    for (const auto &row : rows) {
        SCOPED_TRACE(row.keys);
        const std::string log = read_config(row.keys.c_str());
        EXPECT_TRUE(row.line.empty() || count_of(log, row.line) == 1) << log;
        EXPECT_EQ(row.line.find("[ERR]") == std::string::npos, log.find("[ERR]") == std::string::npos) << log;
        options_get(&now);
        const RemoteAccessOptions &policy = now.remote_access;
        EXPECT_EQ(row.line == refused, policy.is_unusable);
        std::ostringstream values;
        values << now.monitor.state_file << '|' << now.monitor.stuck_s << '|' << now.sandbox << '|' << policy.web << ' '
               << policy.telnet << ' ' << policy.idle_s << ' ' << policy.max_s << '|' << policy.allow_hosts << '|'
               << policy.audit_file;
        EXPECT_EQ(row.values, values.str());
    }
}
