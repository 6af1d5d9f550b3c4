#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"

#include <cjson/cJSON.h>
#include <fstream>
#include <gtest/gtest.h>

#include "log_capture.h"
#include "nm/device_init.h"
#include "runtime/plugin_info_internal.h"
#include "runtime/stop.h"

static const char k_cfg[] = R"({"method":"http","host":"127.0.0.1","port":8080,"dev-sn":"A1","ptype":7,"category":-3,
"pversion":"2.0","pname":"box","mac":"00:aa","dev_server_port":9000,"device-path":"/d","port-path":"/p",
"service-path":"/s","interface-blacklist":"eth9:","disk-whitelist":"/:","platform_name":"pl","factory_name":"fa",
"interface":"lo","localIp":"127.0.0.1","ver":"1.3","web_port":80,"telnet_port":23,"max_dev_msg_size":8,
"dev_msg_buffer_size":64,"log_path":"/var/log/","max_files":3,"max_size":128})";

// The file above with one key set to a JSON value; a null value takes the key out.
static std::string cfg_with(const char *key, const char *value)
{
    cJSON *root = cJSON_Parse(k_cfg);
    cJSON_DeleteItemFromObject(root, key);
    if (value)
        cJSON_AddItemToObject(root, key, cJSON_Parse(value));
    char *text = cJSON_PrintUnformatted(root);
    std::string result = text;
    cJSON_free(text);
    cJSON_Delete(root);
    return result;
}

static PluginInfo info_now()
{
    PluginInfo info;
    plugin_info_get(&info);
    return info;
}

// Takes a file of this content as the init cfg.
static std::string cfg_file(const std::string &content)
{
    std::string path = testing::TempDir() + "init_cfg." + std::to_string(getpid());
    std::ofstream(path) << content;
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    plugin_info_edit_text(&edit, edit.next.init_cfg_path, path.c_str());
    plugin_info_edit_commit(&edit);
    return path;
}

// The fields that the file fills, one line.
static std::string summary(const PluginInfo &i)
{
    char text[8192];
    snprintf(text, sizeof(text),
             "%s %s:%s|%s %s %s %s %s %s|%s:%s %s:%s %s:%s|%s %s %s %s %s|%s %s|%s %s %s %s %s|%s|%d %d|%s %d %d",
             i.nm_method, i.nm_ip, i.nm_port, i.dev_sn, i.ptype, i.category, i.pversion, i.pname, i.mac,
             i.dev.remote_ip, i.dev.remote_port, i.dev_web.remote_ip, i.dev_web.remote_port, i.dev_telnet.remote_ip,
             i.dev_telnet.remote_port, i.device_path, i.port_path, i.service_path, i.interface_blacklist,
             i.disk_whitelist, i.platform_name, i.factory_name, i.interface, i.local_ip, i.nm_web.local_ip,
             i.nm_telnet.local_ip, i.udp_detection.local_ip, i.protocol_version, i.max_dev_msg_size,
             i.dev_msg_buffer_size, i.plugin_log_path, i.max_log_file_number, i.max_log_file_size);
    return text;
}

TEST(init_cfg, every_key_reaches_its_field)
{
    LogLines log;
    EXPECT_EQ(0, init_cfg_parse_text(k_cfg));
    EXPECT_EQ("http 127.0.0.1:8080|A1 7 -3 2.0 box 00:aa|127.0.0.1:9000 127.0.0.1:80 127.0.0.1:23|/d /p /s eth9: /:|"
              "pl fa|lo 127.0.0.1 127.0.0.1 127.0.0.1 127.0.0.1|1.3|8192 65536|/var/log/ 3 131072",
              summary(info_now()));
    EXPECT_TRUE(log.has("[INF] configured_local_ip is equal to detected_local_ip: 127.0.0.1."));
    EXPECT_FALSE(log.has("[WRN]"));
    EXPECT_TRUE(log.has_in_order({"[INF] max_dev_msg_size: 8192", "[INF] dev_msg_buffer_size: 65536",
                                  "[INF] max_log_file_number: 3", "[INF] max_log_file_size: 131072"}));
}

#define TEXT(field) [](const PluginInfo &i) { return std::string(i.field); }
#define NUMBER(field) [](const PluginInfo &i) { return std::to_string(i.field); }

TEST(init_cfg, one_key_changed)
{
    static const struct {
        const char *key;
        const char *value;
        int result;
        std::string (*field)(const PluginInfo &);
        const char *expected;
        const char *line;
    } rows[] = {
        {"method", nullptr, -1, TEXT(nm_method), "", "[WRN] Not found string value for key: method!"},
        {"host", nullptr, -1, TEXT(nm_ip), "", "[WRN] Not found string value for key: host!"},
        {"host", "\"\"", -1, TEXT(nm_ip), "", nullptr},
        {"host", "\"localhost\"", 0, TEXT(nm_ip), "127.0.0.1", nullptr},
        {"host", "\"no-such-host.invalid\"", -1, TEXT(nm_ip), "no-such-host.in",
         "[ERR] gethostbyname() failed: no-such-host.invalid"},
        {"port", "65535", 0, TEXT(nm_port), "65535", nullptr},
        {"port", "0", 0, TEXT(nm_port), "0", nullptr},
        {"dev-sn", nullptr, -1, TEXT(dev_sn), "", "[WRN] Not found string value for key: dev-sn!"},
        {"dev-sn", "12", -1, TEXT(dev_sn), "", "[WRN] Not found string value for key: dev-sn!"},
        {"ptype", "\"7\"", -1, TEXT(ptype), "", "[WRN] Not found int value for key: ptype!"},
        {"ptype", "1e10", 0, TEXT(ptype), "2147483647", nullptr},
        {"mac", "null", -1, TEXT(mac), "", "[WRN] Not found string value for key: mac!"},
        {"dev_server_port", "1234567", 0, TEXT(dev.remote_port), "12345", nullptr},
        {"device-path", nullptr, 0, TEXT(device_path), "", "[WRN] Not found string value for key: device-path!"},
        {"factory_name", nullptr, 0, TEXT(factory_name), "", "[WRN] Not found string value for key: factory_name!"},
        {"interface", nullptr, -1, TEXT(interface), "", "[WRN] Not found string value for key: interface!"},
        {"interface", "\"nope0\"", 1, TEXT(udp_detection.local_ip), "127.0.0.1",
         "[ERR] Cannot detect IP for interface: nope0!"},
        {"localIp", nullptr, -1, TEXT(local_ip), "0.0.0.0", "[WRN] Not found string value for key: localIp!"},
        {"localIp", "\"10.0.0.9\"", 0, TEXT(local_ip), "127.0.0.1",
         "[WRN] configured_local_ip: '10.0.0.9' is different with detected_local_ip: '127.0.0.1'! Use "
         "detected_local_ip: '127.0.0.1'!"},
        {"ver", nullptr, -1, TEXT(dev_web.remote_port), "80",
         "[ERR] Version mismatch, protocol version: , plugin version: 1.3"},
        {"ver", "\"1.2\"", -1, TEXT(protocol_version), "1.2",
         "[ERR] Version mismatch, protocol version: 1.2, plugin version: 1.3"},
        {"telnet_port", nullptr, -1, TEXT(dev_telnet.remote_port), "",
         "[WRN] Not found int value for key: telnet_port!"},
        {"max_dev_msg_size", "4", 0, NUMBER(max_dev_msg_size), "4096", nullptr},
        {"max_dev_msg_size", "2", 0, NUMBER(max_dev_msg_size), "4096",
         "[WRN] g_plugin_info.max_dev_msg_size: 2048 is smaller than the min: 4096!"},
        {"max_dev_msg_size", "10240", 0, NUMBER(max_dev_msg_size), "10485760", nullptr},
        {"max_dev_msg_size", "20000", 0, NUMBER(max_dev_msg_size), "10485760",
         "[WRN] g_plugin_info.max_dev_msg_size: 20480000 is bigger than the max: 10485760!"},
        {"max_dev_msg_size", "2097152", 0, NUMBER(max_dev_msg_size), "10485760",
         "[WRN] g_plugin_info.max_dev_msg_size: 2147483647 is bigger than the max: 10485760!"},
        {"max_dev_msg_size", nullptr, 0, NUMBER(max_dev_msg_size), "4096",
         "[WRN] Not found int value for key: max_dev_msg_size!"},
        {"dev_msg_buffer_size", "7", 0, NUMBER(dev_msg_buffer_size), "8192",
         "[WRN] g_plugin_info.dev_msg_buffer_size: 7168 is smaller than the min: 8192!"},
        {"dev_msg_buffer_size", "10241", 0, NUMBER(dev_msg_buffer_size), "10485760",
         "[WRN] g_plugin_info.dev_msg_buffer_size: 10486784 is bigger than the max: 10485760!"},
        {"dev_msg_buffer_size", "-2097153", 0, NUMBER(dev_msg_buffer_size), "8192",
         "[WRN] g_plugin_info.dev_msg_buffer_size: -2147483648 is smaller than the min: 8192!"},
        {"dev_msg_buffer_size", nullptr, 0, NUMBER(dev_msg_buffer_size), "32768",
         "[WRN] Not found int value for key: dev_msg_buffer_size!"},
        {"log_path", "\"/var/log\"", 0, TEXT(plugin_log_path), "/var/log/",
         "[WRN] plugin_log_path: '/var/log' is not ending with '/', appending it."},
        {"log_path", nullptr, 0, TEXT(plugin_log_path), "", "[WRN] Not found string value for key: log_path!"},
        {"max_files", "0", 0, NUMBER(max_log_file_number), "1",
         "[WRN] g_plugin_info.max_log_file_number: 0 is smaller than the min: 1!"},
        {"max_files", "11", 0, NUMBER(max_log_file_number), "10",
         "[WRN] g_plugin_info.max_log_file_number: 11 is bigger than the max: 10!"},
        {"max_files", nullptr, 0, NUMBER(max_log_file_number), "2", "[WRN] Not found int value for key: max_files!"},
        {"max_files", nullptr, 0, TEXT(plugin_log_path), "", "[INF] max_log_file_number: 2"},
        {"max_size", "32", 0, NUMBER(max_log_file_size), "65536",
         "[WRN] g_plugin_info.max_log_file_size: 32768 is smaller than the min size: 65536!"},
        {"max_size", "2048", 0, NUMBER(max_log_file_size), "1048576",
         "[WRN] g_plugin_info.max_log_file_size: 2097152 is bigger than the max size: 1048576!"},
        {"max_size", nullptr, 0, NUMBER(max_log_file_size), "65536", "[WRN] Not found int value for key: max_size!"},
        {"max_size", nullptr, 0, TEXT(plugin_log_path), "", "[INF] max_log_file_size: 65536"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + ": " + (row.value ? row.value : "missing"));
        plugin_info_reset_for_test();
        LogLines log;
        EXPECT_EQ(row.result, init_cfg_parse_text(cfg_with(row.key, row.value).c_str()));
        EXPECT_EQ(row.expected, row.field(info_now()));
        EXPECT_TRUE(!row.line || log.has(row.line));
        EXPECT_STREQ("23", *row.key == 't' ? "23" : info_now().dev_telnet.remote_port) << "not read to the end";
    }
}

TEST(init_cfg, https_is_one_port_further)
{
    LogLines log;
    std::string text = cfg_with("method", "\"HTTPS\"");
    EXPECT_EQ(0, init_cfg_parse_text(text.c_str()));
    EXPECT_STREQ("8081", info_now().nm_port);
    text.replace(text.find("8080"), 4, "65535");
    EXPECT_EQ(0, init_cfg_parse_text(text.c_str()));
    EXPECT_STREQ("65536", info_now().nm_port);
}

TEST(init_cfg, four_messages_are_capped)
{
    LogLines log;
    std::string text = cfg_with("dev_msg_buffer_size", nullptr);
    size_t at = text.find("\"max_dev_msg_size\":8");
    EXPECT_EQ(0, init_cfg_parse_text(text.replace(at, 20, "\"max_dev_msg_size\":4096").c_str()));
    EXPECT_EQ(10485760, info_now().dev_msg_buffer_size);
}

TEST(init_cfg, a_bad_port_ends_the_reading)
{
    for (const char *port : {"65536", "-1", "\"80\"", (const char *)nullptr}) {
        SCOPED_TRACE(port ? port : "missing");
        plugin_info_reset_for_test();
        LogLines log;
        EXPECT_EQ(-1, init_cfg_parse_text(cfg_with("port", port).c_str()));
        EXPECT_TRUE(log.has(port && *port == '6' ? "[ERR] Invalid port: 65536!" : "[ERR] Invalid port: -1!"));
        EXPECT_STREQ("127.0.0.1", info_now().nm_ip);
        EXPECT_STREQ("", info_now().nm_port);
        EXPECT_STREQ("", info_now().dev_sn);
        EXPECT_FALSE(log.has("max_log_file_number"));
    }
}

TEST(init_cfg, a_redirection_keeps_its_nm)
{
    LogLines log;
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    plugin_info_edit_text(&edit, edit.next.nm_ip, "10.1.1.1");
    plugin_info_edit_text(&edit, edit.next.nm_port, "8444");
    edit.next.nm_redirected = 1;
    plugin_info_edit_mark(&edit, &edit.next.nm_redirected, sizeof(edit.next.nm_redirected));
    plugin_info_edit_commit(&edit);
    EXPECT_EQ(0, init_cfg_parse_text(cfg_with("port", "-1").c_str()));
    EXPECT_STREQ("10.1.1.1", info_now().nm_ip);
    EXPECT_STREQ("8444", info_now().nm_port);
    EXPECT_STREQ("A1", info_now().dev_sn);
    EXPECT_EQ(1, info_now().nm_redirected);
}

TEST(init_cfg, cut_texts_change_nothing)
{
    LogLines log;
    EXPECT_EQ(0, init_cfg_parse_text(k_cfg));
    std::string before = summary(info_now());
    for (size_t len = 0; len < strlen(k_cfg); len++)
        EXPECT_EQ(-1, init_cfg_parse_text(std::string(k_cfg, len).c_str())) << len;
    EXPECT_EQ(before, summary(info_now()));
    EXPECT_TRUE(log.has("[WRN] Error before JSON content: "));
}

TEST(init_cfg, hostile_texts_do_no_harm)
{
    LogLines log;
    const std::string deep = std::string(998, '[') + std::string(998, ']');
    for (const std::string &text : {std::string(20000, '['), deep, "{\"method\":" + deep + ",\"port\":{}}",
                                    std::string("\x01\xff\xfe{\"port\":1}"), std::string("[1,\"port\"]"),
                                    std::string("\"text\""), std::string("null"), std::string("{\"port\":[]}")})
        EXPECT_EQ(-1, init_cfg_parse_text(text.c_str()));

    const std::string longest(600, 'x');
    static const struct {
        const char *key;
        std::string (*field)(const PluginInfo &);
        size_t kept;
    } rows[] = {
        {"method", TEXT(nm_method), 511},
        {"host", TEXT(nm_ip), 15},
        {"dev-sn", TEXT(dev_sn), 511},
        {"device-path", TEXT(device_path), 255},
        {"interface", TEXT(interface), 63},
        {"ver", TEXT(protocol_version), 511},
        {"platform_name", TEXT(platform_name), 255},
    };
    for (const auto &row : rows) {
        init_cfg_parse_text(cfg_with(row.key, ("\"" + longest + "\"").c_str()).c_str());
        EXPECT_EQ(longest.substr(0, row.kept), row.field(info_now())) << row.key;
    }
    init_cfg_parse_text(cfg_with("log_path", ("\"" + longest + "\"").c_str()).c_str());
    EXPECT_EQ(longest.substr(0, 254) + "/", info_now().plugin_log_path);
}

TEST(init_cfg, identity_is_compared)
{
    static const struct {
        const char *key;
        const char *value;
        int result;
        const char *line;
    } rows[] = {
        {"dev-sn", "\"a1\"", 0, nullptr},
        {"dev-sn", "\"A2\"", 1, nullptr},
        {"ptype", "8", 1, nullptr},
        {"ptype", "\"7\"", 1, "[WRN] Not found int value for key: ptype!"},
        {"category", "3", 1, nullptr},
        {"pversion", "\"2.1\"", 1, nullptr},
        {"pname", "\"Box\"", 1, nullptr},
        {"mac", "\"00:AA\"", 0, nullptr},
        {"mac", nullptr, 1, "[WRN] Not found string value for key: mac!"},
        {"platform_name", "\"PL\"", 1, nullptr},
        {"factory_name", nullptr, 1, "[WRN] Not found string value for key: factory_name!"},
        {"interface", "\"eth0\"", 1, nullptr},
        {"localIp", "\"127.0.0.2\"", 1, nullptr},
        {"host", "\"localhost\"", 0, nullptr},
        {"host", "\"127.0.0.2\"", 1, nullptr},
        {"host", nullptr, 1, "[WRN] Not found string value for key: host!"},
        {"port", "-1", 0, nullptr},
        {"ver", "\"1.2\"", 0, nullptr},
        {"max_dev_msg_size", nullptr, 0, nullptr},
    };
    LogLines log;
    ASSERT_EQ(0, init_cfg_parse_text(k_cfg));
    std::string before = summary(info_now());
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + ": " + (row.value ? row.value : "missing"));
        std::string path = cfg_file(cfg_with(row.key, row.value));
        log.clear();
        EXPECT_EQ(row.result, init_cfg_compare());
        EXPECT_EQ(before, summary(info_now()));
        EXPECT_TRUE(!row.line || log.has(row.line));
        unlink(path.c_str());
    }
}

TEST(init_cfg, compare_without_a_host_still_reads_the_last_keys)
{
    LogLines log;
    ASSERT_EQ(0, init_cfg_parse_text(k_cfg));
    std::string path = cfg_file("{\"host\":\"no-such-host.invalid\"}");
    EXPECT_EQ(1, init_cfg_compare());
    EXPECT_FALSE(log.has("value for key: mac!"));
    EXPECT_TRUE(log.has_in_order({"key: platform_name!", "key: factory_name!", "key: interface!", "key: localIp!"}));
    unlink(path.c_str());
}

TEST(init_cfg, files_of_the_size_limit)
{
    LogLines log;
    ASSERT_EQ(0, stop_init(nullptr));
    std::string padding(10240 - strlen(k_cfg), ' ');
    std::string path = cfg_file(padding + k_cfg);
    EXPECT_EQ(0, init_cfg_parse());
    EXPECT_TRUE(log.has("[INF] Reading init cfg successfully. Content: " + padding + k_cfg));
    cfg_file(" " + padding + k_cfg);
    EXPECT_EQ(-1, init_cfg_parse());
    EXPECT_EQ(0, init_cfg_compare() + 1);
    EXPECT_FALSE(stop_requested());
    unlink(path.c_str());
}

TEST(init_cfg, log_keys_alone)
{
    LogLines log;
    std::string path = cfg_file(R"({"log_path":"/l","max_files":5,"max_size":100})");
    EXPECT_EQ(0, init_cfg_parse_log());
    EXPECT_STREQ("/l/", info_now().plugin_log_path);
    EXPECT_EQ(5, info_now().max_log_file_number);
    EXPECT_EQ(102400, info_now().max_log_file_size);
    EXPECT_FALSE(log.has("dev_msg_buffer_size"));
    cfg_file("{");
    EXPECT_EQ(-1, init_cfg_parse_log());
    unlink(path.c_str());
}

TEST(init_cfg, a_missing_file_ends_the_process_but_in_a_comparison)
{
    LogLines log;
    ASSERT_EQ(0, stop_init(nullptr));
    std::string path = cfg_file("");
    EXPECT_EQ(-1, init_cfg_compare());
    EXPECT_FALSE(stop_requested());
    unlink(path.c_str());
    EXPECT_EQ(-1, init_cfg_parse_log());
    EXPECT_EQ(0, stop_status());
    EXPECT_EQ(2, log.count("[ERR] Reading init cfg failed! File path: " + path));
}

TEST(init_cfg, reload_restarts_only_for_another_identity)
{
    LogLines log;
    ASSERT_EQ(0, init_cfg_parse_text(k_cfg));
    g_init_done = 1;
    std::string path = cfg_file(cfg_with("web_port", "8088"));
    reload_init_cfg();
    EXPECT_STREQ("8088", info_now().dev_web.remote_port);
    EXPECT_EQ(1, g_init_done);
    cfg_file(cfg_with("dev-sn", "\"B2\""));
    reload_init_cfg();
    EXPECT_STREQ("A1", info_now().dev_sn); // the next pass takes it
    EXPECT_EQ(0, g_init_done);
    unlink(path.c_str());
}
