#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"

#include "device_files.h"
#include "runtime/plugin_info_internal.h"
#include "support.h"

// A whole file with one key set to a JSON value; a null value takes the key out.
static std::string cfg_with(const char *key, const char *value)
{
    DeviceCfg cfg = device_cfg_default("", false, 8080, 9000);
    device_cfg_set(&cfg, "category", "-3");
    device_cfg_set(&cfg, "mac", "\"00:aa\"");
    device_cfg_set(&cfg, "max_dev_msg_size", "8");
    device_cfg_set(&cfg, key, value ? value : "");
    if (!value)
        device_cfg_remove(&cfg, key);
    return device_cfg_text(cfg);
}

static const std::string k_cfg = cfg_with("ver", "\"1.3\"");

// Takes a file of this content as the init cfg.
static void cfg_file(const std::string &content)
{
    static const TempDir dir;
    const std::string path = dir.path + "/init";
    EXPECT_TRUE(device_write_file(path, content));
    info_edit([&](PluginInfo *next) { (void)text_set(next->init_cfg_path, path.c_str()); });
}

// The fields that the file fills, one line.
static std::string summary(const PluginInfo &i)
{
    std::string text;
    for (const char *field : {i.nm_method,
                              i.nm_ip,
                              i.nm_port,
                              i.dev_sn,
                              i.ptype,
                              i.category,
                              i.pversion,
                              i.pname,
                              i.mac,
                              i.dev.remote_ip,
                              i.dev.remote_port,
                              i.dev_web.remote_ip,
                              i.dev_web.remote_port,
                              i.dev_telnet.remote_ip,
                              i.dev_telnet.remote_port,
                              i.device_path,
                              i.port_path,
                              i.service_path,
                              i.interface_blacklist,
                              i.disk_whitelist,
                              i.platform_name,
                              i.factory_name,
                              i.interface,
                              i.local_ip,
                              i.nm_web.local_ip,
                              i.nm_telnet.local_ip,
                              i.udp_detection.local_ip,
                              i.protocol_version,
                              i.plugin_log_path})
        text += std::string(field) + " ";
    for (int32_t number : {i.max_dev_msg_size, i.dev_msg_buffer_size, i.max_log_file_number, i.max_log_file_size})
        text += std::to_string(number) + " ";
    return text;
}

TEST(init_cfg, every_key_reaches_its_field)
{
    LogLines log;
    cfg_file(k_cfg);
    EXPECT_EQ(0, init_cfg_parse());
    EXPECT_EQ("http 127.0.0.1 8080 SN00000001 12 -3 2.4.1 Gateway 100 00:aa 127.0.0.1 9000 127.0.0.1 80 127.0.0.1 23 "
              "/device /port /service  / simulated loopback lo 127.0.0.1 127.0.0.1 127.0.0.1 127.0.0.1 1.3 /log/ "
              "8192 262144 2 1048576 ",
              summary(info_now()));
    EXPECT_TRUE(log.has("[INF] Reading init cfg successfully. Content: " + k_cfg));
    EXPECT_TRUE(log.has("[INF] configured_local_ip is equal to detected_local_ip: 127.0.0.1."));
    EXPECT_FALSE(log.has("[WRN]"));
}

#define TEXT(field) [](const PluginInfo &i) { return std::string(i.field); }
#define NUMBER(field) [](const PluginInfo &i) { return std::to_string(i.field); }

// A missing key (null) logs its own line once.
static const struct {
    const char *key;
    const char *value;
    int result;
    std::string (*field)(const PluginInfo &);
    const char *expected;
    const char *line;
} k_changes[] = {
    {"method", nullptr, -1, TEXT(nm_method), "", nullptr},
    {"method", "\"HTTPS\"", 0, TEXT(nm_port), "8081", nullptr},
    {"host", "\"localhost\"", 0, TEXT(nm_ip), "127.0.0.1", nullptr},
    {"host", "\"no-host.invalid\"", -1, TEXT(nm_ip), "no-host.invalid",
     "[ERR] gethostbyname() failed: no-host.invalid"},
    {"ptype", "\"7\"", -1, TEXT(ptype), "", "[WRN] Not found int value for key: ptype!"},
    {"ptype", "1e10", 0, TEXT(ptype), "2147483647", nullptr},
    {"dev_server_port", "1234567", 0, TEXT(dev.remote_port), "12345", nullptr},
    {"interface", nullptr, -1, TEXT(interface), "", nullptr},
    {"interface", "\"no0\"", 1, TEXT(nm_web.local_ip), "127.0.0.1", "[ERR] Cannot detect IP for interface: no0!"},
    {"localIp", nullptr, -1, TEXT(local_ip), "0.0.0.0", nullptr},
    {"localIp", "\"10.0.0.9\"", 0, TEXT(local_ip), "127.0.0.1",
     "[WRN] configured_local_ip: '10.0.0.9' is different with detected_local_ip: '127.0.0.1'! Use detected_local_ip: "
     "'127.0.0.1'!"},
    {"ver", "\"1.2\"", -1, TEXT(protocol_version), "1.2",
     "[ERR] Version mismatch, protocol version: 1.2, plugin version: 1.3"},
    {"max_dev_msg_size", "3", 0, NUMBER(max_dev_msg_size), "4096",
     "[WRN] g_plugin_info.max_dev_msg_size: 3072 is smaller than the min: 4096!"},
    {"max_dev_msg_size", "10240", 0, NUMBER(max_dev_msg_size), "10485760", "dev_msg_buffer_size: 10485760"},
    {"max_dev_msg_size", "2097152", 0, NUMBER(max_dev_msg_size), "10485760",
     "[WRN] g_plugin_info.max_dev_msg_size: 2147483647 is bigger than the max: 10485760!"},
    {"dev_msg_buffer_size", "7", 0, NUMBER(dev_msg_buffer_size), "8192",
     "[WRN] g_plugin_info.dev_msg_buffer_size: 7168 is smaller than the min: 8192!"},
    {"dev_msg_buffer_size", "10241", 0, NUMBER(dev_msg_buffer_size), "10485760",
     "[WRN] g_plugin_info.dev_msg_buffer_size: 10486784 is bigger than the max: 10485760!"},
    {"dev_msg_buffer_size", nullptr, 0, NUMBER(dev_msg_buffer_size), "32768", nullptr},
    {"log_path", "\"/var/log\"", 0, TEXT(plugin_log_path), "/var/log/",
     "[WRN] plugin_log_path: '/var/log' is not ending with '/', appending it."},
    {"max_files", "0", 0, NUMBER(max_log_file_number), "1",
     "[WRN] g_plugin_info.max_log_file_number: 0 is smaller than the min: 1!"},
    {"max_files", "11", 0, NUMBER(max_log_file_number), "10",
     "[WRN] g_plugin_info.max_log_file_number: 11 is bigger than the max: 10!"},
    {"max_size", "63", 0, NUMBER(max_log_file_size), "65536",
     "[WRN] g_plugin_info.max_log_file_size: 64512 is smaller than the min size: 65536!"},
    {"max_size", "1025", 0, NUMBER(max_log_file_size), "1048576",
     "[WRN] g_plugin_info.max_log_file_size: 1049600 is bigger than the max size: 1048576!"},
    {"max_size", nullptr, 0, TEXT(plugin_log_path), "", "[INF] max_log_file_size: 65536"},
};

TEST(init_cfg, one_key_changed)
{
    for (const auto &row : k_changes) {
        SCOPED_TRACE(std::string(row.key) + ": " + (row.value ? row.value : "missing"));
        plugin_info_reset_for_test();
        LogLines log;
        EXPECT_EQ(row.result, init_cfg_parse_text(cfg_with(row.key, row.value).c_str()));
        EXPECT_EQ(row.expected, row.field(info_now()));
        EXPECT_TRUE(!row.line || log.has(row.line));
        EXPECT_TRUE(row.value || log.count(std::string("value for key: ") + row.key + "!") == 1);
        EXPECT_TRUE(log.has("max_log_file_size: ")) << "not read to the end";
    }
}

TEST(init_cfg, a_bad_port_ends_the_reading)
{
    for (const char *port : {"65536", "-1", "\"80\"", (const char *)nullptr}) {
        SCOPED_TRACE(port ? port : "missing");
        plugin_info_reset_for_test();
        LogLines log;
        EXPECT_EQ(-1, init_cfg_parse_text(cfg_with("port", port).c_str()));
        EXPECT_TRUE(log.has(port && *port == '6' ? "[ERR] Invalid port: 65536!" : "[ERR] Invalid port: -1!"));
        PluginInfo info = info_now();
        EXPECT_EQ("127.0.0.1  ", std::string(info.nm_ip) + " " + info.nm_port + " " + info.dev_sn);
        EXPECT_FALSE(log.has("max_log_file_number"));
    }
    info_edit([](PluginInfo *next) { // a redirection keeps its NM
        (void)text_set(next->nm_ip, "10.1.1.1");
        (void)text_set(next->nm_port, "8444");
        next->nm_redirected = 1;
    });
    EXPECT_EQ(0, init_cfg_parse_text(cfg_with("port", "-1").c_str()));
    PluginInfo info = info_now();
    EXPECT_EQ("10.1.1.1 8444 SN00000001", std::string(info.nm_ip) + " " + info.nm_port + " " + info.dev_sn);
    EXPECT_EQ(1, info.nm_redirected);
}

TEST(init_cfg, identity_is_compared)
{
    const char *k_same[][2] = {
        // a null value takes the key out
        {"host", "\"localhost\""}, {"dev-sn", "\"sn00000001\""}, {"mac", "\"00:AA\""}, {"port", "-1"},
        {"ver", "\"1.2\""},        {"max_files", nullptr},
    };
    const char *k_other[][2] = {
        {"host", "\"127.0.0.2\""},
        {"host", nullptr},
        {"dev-sn", "\"SN00000002\""},
        {"ptype", "8"},
        {"category", "-4"},
        {"pversion", "\"2.1\""},
        {"pname", "\"gateway 100\""},
        {"mac", nullptr},
        {"platform_name", "\"Simulated\""},
        {"factory_name", nullptr},
        {"interface", "\"eth0\""},
        {"localIp", "\"127.0.0.2\""},
    };
    LogLines log;
    ASSERT_EQ(0, init_cfg_parse_text(k_cfg.c_str()));
    std::string before = summary(info_now());
    for (const auto &row : k_same) {
        cfg_file(cfg_with(row[0], row[1]));
        EXPECT_EQ(0, init_cfg_compare()) << row[0];
    }
    for (const auto &row : k_other) {
        cfg_file(cfg_with(row[0], row[1]));
        EXPECT_EQ(1, init_cfg_compare()) << row[0];
    }
    EXPECT_EQ(before, summary(info_now()));

    (void)log.take(); // without a host the last four keys are still read
    cfg_file("{\"host\":\"no-host.invalid\"}");
    EXPECT_EQ(1, init_cfg_compare());
    EXPECT_EQ(4, log.count("[WRN] Not found string value for key: "));
    EXPECT_TRUE(log.has("key: platform_name!") && log.has("key: localIp!"));
}
