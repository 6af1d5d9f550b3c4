#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"

#include "device_files.h"
#include "runtime/plugin_info_internal.h"
#include "support.h"

// The whole file of docs/examples/init-cfg.md with one key set to a JSON value; an empty value takes the key out.
static std::string cfg_with(const std::string &key, const std::string &value)
{
    DeviceCfg cfg = device_cfg_default("", false, 8080, 9000);
    device_cfg_set(&cfg, "category", "-3");
    device_cfg_set(&cfg, "mac", "\"00:aa\"");
    device_cfg_set(&cfg, "max_dev_msg_size", "8");
    device_cfg_set(&cfg, key, value);
    if (value.empty())
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

typedef std::vector<std::pair<std::string, std::string>> Settings;

// What the keys of the file have put in force, and the addresses that localIp decides.
static Settings settings()
{
    const PluginInfo info = info_now();
    InitCfgKeyInfo key;
    Settings all;
    for (size_t i = 0; init_cfg_key_at(i, &info, &key); i++)
        all.push_back({key.key, key.value});
    for (const Endpoint *from : {&info.nm_web, &info.nm_telnet, &info.udp_detection})
        all.push_back({"from", from->local_ip});
    return all;
}

// "name=value, ..." of the settings that are not as before.
static std::string changes(const Settings &before)
{
    std::string text;
    const Settings now = settings();
    for (size_t i = 0; i < now.size(); i++) {
        if (now[i] != before[i])
            text += (text.empty() ? "" : ", ") + now[i].first + "=" + now[i].second;
    }
    return text;
}

TEST(init_cfg, a_good_file_and_its_lines)
{
    LogLines log(6);
    cfg_file(k_cfg);
    EXPECT_EQ(0, init_cfg_parse());
    EXPECT_TRUE(log.has_in_order({"[INF] Reading init cfg successfully. Content: " + k_cfg,
                                  "[INF] configured_local_ip is equal to detected_local_ip: 127.0.0.1.\n"
                                  "[INF] max_dev_msg_size: 8192\n[INF] dev_msg_buffer_size: 262144\n"
                                  "[INF] max_log_file_number: 2\n[INF] max_log_file_size: 1048576\n"}));
    const Settings full = settings();
    plugin_info_reset_for_test(); // without an address of the interface the configured one is in force
    EXPECT_EQ(1, init_cfg_parse_text(cfg_with("interface", "\"no0\"").c_str()));
    EXPECT_EQ("interface=no0", changes(full));
    EXPECT_EQ(0, init_cfg_parse_text(cfg_with("interface-blacklist", "\"wlan0\"").c_str()));
    EXPECT_STREQ("wlan0", info_now().interface_blacklist); // which nothing posts, nor the disks' names
    EXPECT_STREQ("/", info_now().disk_whitelist);
}

// Each changed file is compared with the one in force, which changes nothing, and then read.
TEST(init_cfg, one_key_changed)
{
    cfg_file(k_cfg);
    ASSERT_EQ(0, init_cfg_parse());
    const PluginInfo info = info_now();
    const Settings before = settings();
    for (const Texts &row : examples("init-cfg")) {
        SCOPED_TRACE(row[0] + ": " + row[1]);
        info_edit([&](PluginInfo *next) { *next = info; });
        cfg_file(cfg_with(row[0], row[1]));
        EXPECT_EQ(row[5], init_cfg_compare() == 0 ? "no" : "yes");
        EXPECT_EQ("", changes(before));
        info_edit([](PluginInfo *next) { next->max_log_file_size = 0; }); // set by the last key of all
        LogLines log(4);
        const int result = init_cfg_parse();
        const std::string lines = log.text();
        EXPECT_EQ(row[2], result == 0 ? "good" : result == 1 ? "good, no address" : "fails");
        EXPECT_EQ(row[3], changes(before));
        EXPECT_EQ(row[4], lines);
    }
}

TEST(init_cfg, a_bad_port_ends_the_reading)
{
    for (const char *port : {"65536", "-1", "\"80\"", ""}) {
        SCOPED_TRACE(port);
        plugin_info_reset_for_test();
        const Settings empty = settings();
        LogLines log(3);
        EXPECT_EQ(-1, init_cfg_parse_text(cfg_with("port", port).c_str()));
        EXPECT_EQ(log.text(), *port == '6' ? "[ERR] Invalid port: 65536!\n" : "[ERR] Invalid port: -1!\n");
        EXPECT_EQ("method=http, host=127.0.0.1", changes(empty));
    }
    info_edit([](PluginInfo *next) { // a redirection keeps its NM
        (void)text_set(next->nm_ip, "10.1.1.1");
        (void)text_set(next->nm_port, "8444");
        next->nm_redirected = 1;
    });
    const Settings redirected = settings();
    EXPECT_EQ(0, init_cfg_parse_text(cfg_with("port", "-1").c_str()));
    EXPECT_EQ("interface=lo", changes(redirected).substr(0, 12)); // nothing before it
    EXPECT_EQ(1, info_now().nm_redirected);
}

TEST(init_cfg, identity_without_a_host)
{
    ASSERT_EQ(0, init_cfg_parse_text(k_cfg.c_str()));
    LogLines log; // the last four keys are still compared
    cfg_file("{\"host\":\"no-host.invalid\"}");
    EXPECT_EQ(1, init_cfg_compare());
    EXPECT_EQ(4, log.count("[WRN] Not found string value for key: "));
    EXPECT_TRUE(log.has("key: platform_name!") && log.has("key: localIp!"));
}
