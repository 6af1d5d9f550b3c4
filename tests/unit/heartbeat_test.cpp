#include "nm/heartbeat.h"

#include "nm/device_init.h"
#include "nm/nm_msg.h"
#include "peers.h"

static const std::string k_active = http_ok("{\"result\":\"ACTIVE\"}");

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
    start_process_once();
    NmPeer nm;
    nm_msg_table_init();
    g_init_done = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer);
        for (const char *path_end : {"heartbeat", "runstatus", "services", "callhistory"})
            nm.answer_set(path_end, {c.answer});
        EXPECT_EQ(tx_nms_message(c.type, "{}", 2), c.result);
        EXPECT_EQ(nm.now(&NmPeer::paths).back(), std::string("/dev-api/A1/") + c.last_path);
        EXPECT_EQ(g_restart_count, c.restarts);
    }
}

// While one exchange waits for its answer, a further expiry sends nothing; one that lost its bring-up counts nothing.
TEST(Heartbeat, OverlapAndCallOff)
{
    start_process_once();
    NmPeer nm;
    std::string port;
    int device = device_link(), udp = bound_socket(SOCK_DGRAM, &port);
    info_edit([&](PluginInfo *next) {
        (void)text_set(next->udp_detection.remote_ip, "127.0.0.1");
        (void)text_set(next->udp_detection.remote_port, port.c_str());
    });
    g_init_done = 1;
    heartbeat_reset();
    LogLines log;
    std::thread first([] { udp_handler(nullptr); });
    EXPECT_TRUE(readable_within(udp, 5000));
    udp_handler(nullptr);
    restart_device_init();
    first.join();
    EXPECT_EQ(log.count("Sending UDP detection... "), 1);
    EXPECT_FALSE(log.has("udp_recv error"));
    EXPECT_EQ(nm.now(&NmPeer::paths), Texts{}); // called off: no post
    close(device);
    close(udp);
}
