#include "device/dev_msg_handle.h"

#include "nm/device_init.h"
#include "session_peers.h"

// Hands over a message in an area that has just its room.
static void dispatch(const std::string &text)
{
    std::vector<char> area(text.c_str(), text.c_str() + text.size() + 1);
    dev_msg_dispatch(area.data(), (uint32_t)text.size(), (uint32_t)area.size());
}

static std::string ack(const std::string &sessionid, const char *type, const char *result, const char *cause)
{
    return "{\t\"sessionid\":\"" + sessionid + "\",\t\"type\":\"" + type + "\",\t\"result\":" + result +
           ",\t\"cause\":\"" + cause + "\",\t\"ver\":\"\"}";
}

TEST(DevMsgHandle, Acks)
{
    const std::string id_429(429, 'i'), id_430(430, 'i');
    const struct {
        const char *type;
        std::string sessionid;
        int32_t msg_id;
        const char *response; // null: NM did not answer
        std::string sent;
    } cases[] = {
        {"cfg-result", "s1", -1, "{\"status\":200,\"result\":{\"sessionid\":\"s2\"}}",
         ack("s2", "cfg-ack", "true", "")},
        {"backup-result", "s1", -1, "{\"status\":200}", ack("s1", "backup-ack", "true", "")},
        {"upgrade-result", "s1", -1, "{\"status\":5,\"error\":\"\\\"x\\\"\"}",
         ack("s1", "upgrade-ack", "false", "\"x\"")},
        {"cfg-result", "s1", -1, "{\"status\":\"200\"}", ack("s1", "cfg-ack", "false", "")},
        {"cfg-result", "", -1, nullptr, ack("", "cfg-ack", "false", "")},
        {"alarm-info", "s1", -1, "", "{\t\"type\":\"alarm-ack\",\t\"msgId\":-1,\t\"result\":false,\t\"ver\":\"\"}"},
        {"upgrade-result", id_429, -1, nullptr, ack(id_429, "upgrade-ack", "false", "")}, // 506 characters
        {"upgrade-result", id_430, -1, nullptr, ack(id_430, "upgrade-ack", "false", "").substr(0, 506)},
        {"cfg-result", "s1", -1, "<html>", "(none)"},
        {"port-status", "s1", -1, "{\"status\":200}", "(none)"},
    };
    int device = device_link();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sent);
        int len = c.response ? (int)strlen(c.response) : 0;
        bool none = c.sent == "(none)";
        EXPECT_EQ(dev_msg_ack(c.sessionid.c_str(), c.msg_id, c.type, c.response, len), none ? -1 : 0);
        EXPECT_EQ(device_read(device, none ? 0 : 5000), c.sent);
    }
    conn_remove_all();
    EXPECT_EQ(dev_msg_ack("", -1, "cfg-result", nullptr, 0), 0); // without a link it counts as sent
    close(device);
}

// What the device says, in one conversation: what NM gets, and which messages are answered.
TEST(DevMsgHandle, MessagesReachTheirPathAndAreAcknowledged)
{
    NmPeer nm;
    nm_peer_answer_set(&nm, "backupResult", {""}); // NM closes the connection
    nm_peer_answer_set(&nm, "callhistory", {"", "", http_ok("{}"), ""});
    nm_peer_start(&nm, "1.3", "SN");
    int device = device_link();
    const std::string cfg = "{\"type\":\"cfg-result\", \"sessionid\":\"a\"}", ports = "{\"type\":\"port-status\"}";
    const std::string backup = "{\"type\":\"backup-result\",\"log\":\"" + std::string(1 << 20, 'l') + "\"}";
    const std::string deep = "{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":1}}}}}}";
    const std::string alarm = "{\"type\":\"alarm-info\",\"msgId\":3,\"payload\":" + deep + "}";
    std::string alarm_body = "[{\n", indent = "\t";
    for (int i = 0; i < 5; i++, indent += "\t")
        alarm_body += indent + "\"a\":\t{\n";
    alarm_body += indent + "\"a\":\t1\n\t\t\t\t\t}\n\t\t\t\t}\n\t\t\t}\n\t\t}\n\t}\n}]";
    ASSERT_GT(alarm_body.size(), alarm.size());
    dispatch(cfg);
    dispatch(ports);
    for (const char *nothing : {"{\"type\":\"alarm-info\"}", "not JSON", "{\"type\":\"Ping\"}"})
        dispatch(nothing);
    dispatch(alarm);
    g_log_level = 3;
    dispatch(backup);
    for (int i = 0; i < 2; i++) // heard at the third attempt; not heard in three
        dispatch("{\"type\":\"call-history\",\"payload\":[1]}");
    dispatch("{\"type\":\"ping\",\"payload\":1}");
    EXPECT_EQ(device_read(device), ack("a", "cfg-ack", "true", ""));
    EXPECT_EQ(device_read(device), "{\t\"type\":\"alarm-ack\",\t\"msgId\":3,\t\"result\":true,\t\"ver\":\"\"}");
    EXPECT_EQ(device_read(device), ack("", "backup-ack", "false", ""));
    EXPECT_EQ(device_read(device), "{\n\t\"type\":\"pong\"\n}\n");
    conn_remove_all();
    nm_peer_end(&nm);
    Texts paths = {"/dev-api/SN/cfgResult", "/dev-api/SN/ports", "/dev-api/SN/alarm", "/dev-api/SN/backupResult"};
    paths.insert(paths.end(), 6, "/dev-api/SN/callhistory");
    EXPECT_EQ(nm_peer_paths(&nm), paths);
    Texts bodies = {cfg, ports, alarm_body.substr(0, alarm.size()), backup}; // indented beyond the area
    bodies.insert(bodies.end(), 6, "[1]");
    EXPECT_TRUE(nm_peer_bodies(&nm) == bodies) << nm_peer_bodies(&nm)[2];
    close(device);
}

// The stop comes while NM keeps silent: a "false" would be a lie.
TEST(DevMsgHandle, PostCutByAStopIsNotAcknowledged)
{
    start_process_once();
    NmPeer nm;
    nm_peer_start(&nm, "1.3", "SN");
    std::string port;
    int silent = listen_socket(&port);
    int device = device_link();
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.nm_port, port.c_str());
    plugin_info_edit_commit(&edit);
    LogLines log;
    std::thread handler([] { dispatch("{\"type\":\"cfg-result\"}"); });
    int fd = accept(silent, nullptr, nullptr);
    EXPECT_EQ(read_upto(fd, 1), "P");
    stop_request(15);
    handler.join();
    EXPECT_FALSE(log.has("Posting result to NM failed!"));
    EXPECT_EQ(device_read(device, 0), "(none)");
    nm_peer_end(&nm);
    for (int one : {fd, silent, device})
        close(one);
}
