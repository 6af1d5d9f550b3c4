#include "nm/heartbeat.h"

#include "nm/device_init.h"
#include "nm/nm_msg.h"
#include "session_peers.h"

static const char k_body[] = "{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"SN\"\n}";
static const std::string k_active = http_ok("{\"result\":\"ACTIVE\"}");

// Device link, NM and detection server of one online agent.
struct Online {
    NmPeer nm;
    int device;
    int udp;
};

static void online_begin(Online *o)
{
    start_process_once();
    nm_msg_table_init();
    nm_peer_answer_set(&o->nm, "heartbeat", {k_active});
    nm_peer_start(&o->nm, "1.3", "SN");
    o->device = device_link();
    std::string port;
    o->udp = bound_socket(SOCK_DGRAM, &port);
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.udp_detection.remote_ip, "127.0.0.1");
    (void)plugin_info_edit_text(&edit, edit.next.udp_detection.remote_port, port.c_str());
    plugin_info_edit_commit(&edit);
    g_init_done = 1;
    heartbeat_reset();
}

static void online_end(Online *o)
{
    conn_remove_all();
    nm_peer_end(&o->nm);
    close(o->device);
    close(o->udp);
    alarm(0);
}

TEST(Heartbeat, HttpAnswers)
{
    const struct {
        uint32_t type;
        std::string answer;
        int result;
        const char *last_path;
        uint32_t restarts;
    } cases[] = {
        {REPORT_HEARTBEAT, k_active, 0, "heartbeat", 0},
        {REPORT_HEARTBEAT, http_ok("{\"result\":\"ACK\"}"), 0, "handshake", 0},
        {REPORT_HEARTBEAT, http_ok("{\"result\":\"acks\"}"), -1, "heartbeat", 0},
        {REPORT_HEARTBEAT, http_ok("{\"result\":200}"), -1, "heartbeat", 0},
        {REPORT_HEARTBEAT, http_ok(""), -1, "heartbeat", 0},
        {REPORT_HEARTBEAT, "", -1, "heartbeat", 0},
        {REPORT_RUN_STATUS, http_ok("{\"result\":\"rec\"}"), 0, "runstatus", 0}, // a word for heartbeats only
        {REPORT_WORKING_SERVICES, "", -1, "working/services", 0},
        {REPORT_CALL_HISTORY, http_ok(""), 0, "callhistory", 0},
        {REPORT_TYPE_COUNT, k_active, -1, "callhistory", 0}, // posts nothing
        {REPORT_HEARTBEAT, http_ok("{\"result\":\"rec\"}"), 0, "heartbeat", 1},
    };
    Online o;
    online_begin(&o);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer);
        for (const char *path_end : {"heartbeat", "runstatus", "services", "callhistory"})
            nm_peer_answer_set(&o.nm, path_end, {c.answer});
        EXPECT_EQ(tx_nms_message(c.type, k_body, strlen(k_body)), c.result);
        EXPECT_EQ(nm_peer_paths(&o.nm).back(), std::string("/dev-api/SN/") + c.last_path);
        EXPECT_EQ(g_restart_count, c.restarts);
    }
    online_end(&o);
}

// While one exchange waits for its answer, a further expiry sends nothing; one that lost its bring-up counts nothing.
TEST(Heartbeat, OverlapAndCallOff)
{
    Online o;
    online_begin(&o);
    LogLines log;
    std::thread first([] { udp_handler(nullptr); });
    EXPECT_TRUE(readable_within(o.udp, 5000));
    udp_handler(nullptr);
    restart_device_init();
    first.join();
    EXPECT_EQ(log.count("Sending UDP detection... "), 1);
    EXPECT_FALSE(log.has("udp_recv error"));
    EXPECT_EQ(nm_peer_paths(&o.nm), Texts{}); // called off: no post
    online_end(&o);
}

TEST(Heartbeat, TriggerChangesThePeriod)
{
    const struct {
        const char *payload;
        int result;
        const char *line; // empty: nothing changes
    } cases[] = {
        {"{\"param\":{\"period\":30}}", 0, "Changing UDP detection interval from: 6 to 30.\n"},
        {"{\"param\":{\"period\":30}}", 0, ""},
        {"{\"param\":{\"period\":\"9\"}}", 0, ""},
        {"{", -1, ""},
        {"{\"param\":{\"period\":-5}}", 0, "Changing UDP detection interval from: 30 to -5.\n"},
        {"{\"param\":{\"period\":0}}", 0, "Changing UDP detection interval from: -5 to 0.\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.payload);
        LogLines log;
        EXPECT_EQ(udp_detection_interval_handle(0, "", c.payload, (uint32_t)strlen(c.payload)), c.result);
        EXPECT_EQ(log.has("Changing"), c.line[0] != '\0');
        EXPECT_TRUE(log.has(c.line));
    }
}
