#include "device/dev_msg_handle.h"
#include "device/dev_msg_handle_internal.h"

#include <future>

#include "nm/nm_session.h"
#include "peers.h"
#include "runtime/stop_internal.h"

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
    std::vector<Texts> rows = examples("acks");
    for (size_t len : {429, 430}) { // the ack has 506 characters at most
        const std::string id(len, 'i');
        rows.push_back({"upgrade-result", id, "none", ack(id, "upgrade-ack", "false", "").substr(0, 506)});
    }
    int device = device_link();
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0] + ": " + row[2]);
        const bool answered = row[2] != "none", none = row[3].empty();
        EXPECT_EQ(none ? -1 : 0, dev_msg_ack(row[1].c_str(), -1, row[0].c_str(), answered ? row[2].c_str() : nullptr,
                                             answered ? (int)row[2].size() : 0));
        EXPECT_EQ(none ? "(none)" : row[3], device_read(device, none ? 0 : 5000));
    }
    conn_remove_all();
    EXPECT_EQ(dev_msg_ack("", -1, "cfg-result", nullptr, 0), 0); // without a link it counts as sent
    close(device);
}

// NM gets the payload indented, within the room that the message had; call history is tried three times.
TEST(DevMsgHandle, AlarmsAndCallHistory)
{
    NmPeer nm;
    nm.answer_set("callhistory", {"", "", http_ok("{}"), ""});
    const std::string alarm = "{\"type\":\"alarm-info\",\"msgId\":3,\"payload\":"
                              "{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":1}}}}}}}";
    std::string alarm_body = "[{\n", indent = "\t";
    for (int i = 0; i < 5; i++, indent += "\t")
        alarm_body += indent + "\"a\":\t{\n";
    alarm_body += indent + "\"a\":\t1\n\t\t\t\t\t}\n\t\t\t\t}\n\t\t\t}\n\t\t}\n\t}\n}]";
    ASSERT_GT(alarm_body.size(), alarm.size());
    int device = device_link();
    for (const char *nothing : {"{\"type\":\"alarm-info\"}", "not JSON", "{\"type\":\"Ping\"}"})
        dispatch(nothing);
    dispatch(alarm);
    for (int i = 0; i < 2; i++) // heard at the third attempt; not heard in three
        dispatch("{\"type\":\"call-history\",\"payload\":[1]}");
    EXPECT_EQ(device_read(device), "{\t\"type\":\"alarm-ack\",\t\"msgId\":3,\t\"result\":true,\t\"ver\":\"\"}");
    EXPECT_EQ(device_read(device, 0), "(none)");
    Texts bodies(7, "[1]");
    bodies[0] = alarm_body.substr(0, alarm.size());
    EXPECT_EQ(nm.now(&NmPeer::bodies), bodies);
    close(device);
}

static std::string with_payload(const char *type, int levels)
{
    return std::string("{\"type\":\"") + type + "\",\"msgId\":4,\"payload\":" + std::string((size_t)levels, '[') +
           std::string((size_t)levels, ']') + "}";
}

TEST(DevMsgHandle, DeepPayloadsAreRefused)
{
    const struct {
        const char *type;
        int levels;
        const char *ack, *post; // "": none
    } cases[] = {
        {"alarm-info", 64, "true", "alarm"},     {"alarm-info", 65, "false", ""}, {"alarm-info", 990, "false", ""},
        {"call-history", 64, "", "callhistory"}, {"call-history", 65, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.type) + std::to_string(c.levels));
        NmPeer nm;
        int device = device_link();
        LogLines log;
        dispatch(with_payload(c.type, c.levels));
        EXPECT_EQ(log.count("[ERR]"), *c.post ? 0 : 1);
        EXPECT_EQ(log.count(std::string("[ERR] Payload of '") + c.type + "' is nested deeper than 64!\n"),
                  *c.post ? 0 : 1);
        std::string sent =
            std::string("{\t\"type\":\"alarm-ack\",\t\"msgId\":4,\t\"result\":") + c.ack + ",\t\"ver\":\"\"}";
        EXPECT_EQ(device_read(device, 0), *c.ack ? sent : "(none)");
        EXPECT_EQ(nm.now(&NmPeer::paths), *c.post ? Texts{std::string("/dev-api/A1/") + c.post} : Texts{});
        close(device);
    }
}

static void restart(int *)
{
    g_init_done = 1;
    restart_device_init();
    alarm(0);
}

static void restart_with_new_link(int *device)
{
    close(*device);
    *device = device_link();
    restart(device);
}

// NM takes the connection and never answers the handshake. A restart ends the post as a failure, of which only the link
// that waits for it hears; a stop ends it without a word.
TEST(DevMsgHandle, CutPosts)
{
    const struct {
        const char *type;
        void (*cut)(int *device);
        std::string ack;
        int lines; // of the failure
    } cases[] = {
        {"cfg-result", restart, ack("s", "cfg-ack", "false", ""), 1},
        {"cfg-result", restart_with_new_link, "(none)", 1},
        {"call-history", restart, "(none)", 0},
        {"cfg-result", [](int *) { stop_request(15); }, "(none)", 0},
    };
    start_process_once();
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        std::string port;
        int listener = listen_socket(&port);
        nm_set(port, "https");
        int device = device_link();
        LogLines log;
        std::string text = std::string("{\"type\":\"") + c.type + "\",\"sessionid\":\"s\",\"payload\":[1]}";
        std::future<void> handled = std::async(std::launch::async, dispatch, text);
        int nm = accept(listener, nullptr, nullptr);
        EXPECT_TRUE(readable_within(nm, 5000)); // its handshake has begun
        c.cut(&device);
        EXPECT_EQ(handled.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(device_read(device, 0), c.ack);
        EXPECT_EQ(log.count("Sending device response to NM failed. response: \n"), c.lines);
        EXPECT_EQ(log.count("Posting result to NM failed!\n"), c.lines);
        PostFacts facts;
        nm_post_facts_get(&facts);
        EXPECT_EQ(0u, facts.failed); // NM has not failed
        close(nm);
        handled.wait();
        close(listener);
        close(device);
        stop_reset_for_test();
        conn_remove_all();
    }
}
