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

// One beat; the detection server answers with the word (null: silence). Returns the datagram.
static std::string beat(Online *o, const char *word)
{
    std::atomic<bool> over{false};
    std::thread callback([&over] {
        udp_handler(nullptr);
        over = true;
    });
    char datagram[512] = {};
    struct sockaddr_in from = {};
    socklen_t len = sizeof(from);
    while (!over && !readable_within(o->udp, 10)) {
    }
    ssize_t got = recvfrom(o->udp, datagram, sizeof(datagram) - 1, MSG_DONTWAIT, (struct sockaddr *)&from, &len);
    EXPECT_TRUE(got < 1 || !word || sendto(o->udp, word, strlen(word), 0, (struct sockaddr *)&from, len) >= 0);
    callback.join();
    return datagram;
}

TEST(Heartbeat, UdpAnswers)
{
    const struct {
        const char *word;
        Texts posts;
        uint32_t restarts;
    } cases[] = {
        {"active", {}, 0},
        {"ack", {"/dev-api/SN/handshake"}, 0},
        {"ack\n", {"/dev-api/SN/heartbeat"}, 0},
        {"", {"/dev-api/SN/heartbeat"}, 0},
        {"ReC", {}, 1},
    };
    Online o;
    online_begin(&o);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.word);
        size_t before = nm_peer_posts(&o.nm).size();
        EXPECT_EQ(beat(&o, c.word), k_body);
        Texts paths = nm_peer_paths(&o.nm);
        EXPECT_EQ(Texts(paths.begin() + (ssize_t)before, paths.end()), c.posts);
        EXPECT_EQ(g_restart_count, c.restarts);
    }
    EXPECT_EQ(g_init_done, 0);
    EXPECT_EQ(beat(&o, "active"), ""); // offline: no heartbeat
    online_end(&o);
}

// Five misses in a row turn to HTTP although every post succeeded.
TEST(Heartbeat, SilentUdpTurnsToHttp)
{
    Online o;
    online_begin(&o);
    LogLines log;
    EXPECT_EQ(beat(&o, nullptr), k_body);
    EXPECT_EQ(beat(&o, "ACTIVE"), k_body);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(beat(&o, nullptr), k_body) << i;
    EXPECT_EQ(beat(&o, "ACTIVE"), "");
    EXPECT_EQ(log.count("nonresponse for udp trigger has reached the upper limit! Change to http mode.\n"), 1);
    EXPECT_EQ(nm_peer_bodies(&o.nm), Texts(7, k_body));
    heartbeat_reset();
    EXPECT_EQ(beat(&o, "ACTIVE"), k_body);
    online_end(&o);
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

// The fifth failed post asks for a restart and so does the sixth; meanwhile the UDP count reaches its limit as well.
TEST(Heartbeat, FailedPostsRestart)
{
    Online o;
    online_begin(&o);
    nm_peer_answer_set(&o.nm, "heartbeat", {""});
    LogLines log;
    for (uint32_t i = 1; i <= 5; i++) {
        EXPECT_EQ(g_restart_count, 0u);
        beat(&o, "nothing known");
    }
    EXPECT_EQ(tx_nms_message(REPORT_HEARTBEAT, k_body, strlen(k_body)), -1);
    EXPECT_TRUE(log.has_in_order({"http trigger has reached the upper limit! Re-initialize device...\n",
                                  "Start timer for 'enable_init_flag', len: 10000 ms\n", "Change to http mode.\n",
                                  "http trigger has reached the upper limit! Re-initialize device...\n"}));
    EXPECT_EQ(g_restart_count, 1u);
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

TEST(Heartbeat, LostDeviceLinkRestartsOnce)
{
    Online o;
    online_begin(&o);
    shutdown(o.device, SHUT_RDWR);
    LogLines log;
    udp_handler(nullptr);
    udp_handler(nullptr);
    EXPECT_EQ(log.count("Device TCP connection lost! Re-initialize device...\n"), 2);
    EXPECT_EQ(log.count("Start timer for 'enable_init_flag', len: 10000 ms\n"), 1);
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
