#include "nm/nm_msg.h"
#include "nm/nm_msg_internal.h"
#include "nm/nm_msg_table.h"

#include "peers.h"

static std::string answer_with(const std::string &payload)
{
    return "{\"status\":200,\"result\":{\"payload\":" + payload + "}}";
}

TEST(NmMsg, CommandsByType)
{
    std::string registered;
    for (const Texts &row : examples("nm-commands"))
        registered += "[DBG] Msg: " + row[0] + " is registered as " + row[1] + "\n";
    LogLines log;
    nm_msg_table_init();
    EXPECT_EQ(registered, log.text());
}

TEST(NmMsg, PayloadOfAnAnswer)
{
    const std::string fits = "{\"k\":\"" + std::string(5111, 'x') + "\"}";
    const std::string over = "{\"k\":\"" + std::string(5112, 'x') + "\"}";
    const struct {
        std::string answer;
        int result;
        std::string payload;
        uint32_t len; // 77: not stored
    } cases[] = {
        {answer_with("[{\"type\":\"a\"},{ \"type\" : \"b\" }]"), 0, "{\"type\":\"b\"}", 12},
        {answer_with("[{\"n\":1.0,\"u\":\"\\u00e9\"}]"), 0, "{\"n\":1,\"u\":\"\xc3\xa9\"}", 16},
        {answer_with("{\"type\":\"a\",\"param\":{\"x\":1}}"), 0, "{\"x\":1}", 7},
        {"{\"RESULT\":{\"Payload\":[{}]}}", 0, "{}", 2},
        {answer_with("\"{}\""), 0, "", 77},
        {answer_with("[]"), 0, "", 77},
        {"{\"result\":{}}", 0, "", 77},
        {"{}", 0, "", 77},
        {answer_with("[" + fits + "]"), 0, fits, 5119},
        {answer_with("[{}," + over + ",{}]"), -1, "{}", 5120},
        {"{\"result\":", -1, "", 77},
        {"", -1, "", 77},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer.substr(0, 60));
        char buf[NM_PAYLOAD_SIZE] = {};
        uint32_t len = 77;
        EXPECT_EQ(nm_payload_extract(c.answer.c_str(), buf, sizeof(buf), &len), c.result);
        EXPECT_EQ(buf, c.payload);
        EXPECT_EQ(len, c.len);
    }
}

static std::string nested(size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

// Commands that cannot be carried out are told in a line; so is a status that NM does not take.
TEST(NmMsg, CommandsThatFail)
{
    const struct {
        std::string command;
        const char *line;
    } cases[] = {
        {"{\"type\":1}", "Unknown msg: "},
        {"{\"type\":" + nested(300) + "}", "Unknown msg: "},
        {nested(1500), "parsing payload failed!"},
        {"{\"type\":\"" + std::string(512, 't') + "\"}", "value_len: 512 not enough, needed matched_len: 513"},
        {"{\"type\":\"remote-web\",\"param\":[]}", "Invalid port: -1!"},
        {"{\"type\":\"device-status\",\"param\":3}", "Not found string value for key: action!"},
        {"{\"type\":\"dev-info\"}", "Posting dev status failed!, ret = -1\n[INF] Posting dev status successfully\n"},
        {"{\"type\":\"port-status\"}", "Querying port status failed!"},
    };
    nm_msg_table_init();
    NmPeer nm;
    nm.answer_set("A1", {""});
    info_edit([](PluginInfo *next) { (void)text_set(next->device_path, "/etc/passwd"); });
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command.substr(0, 60));
        LogLines log;
        (void)nm_msg_process(0, answer_with("[" + c.command + "]").c_str());
        EXPECT_TRUE(log.has(c.line));
    }
}
