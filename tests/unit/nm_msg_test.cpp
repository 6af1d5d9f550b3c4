#include "nm/nm_msg.h"

#include "support.h"

static std::string answer_with(const std::string &payload)
{
    return "{\"status\":200,\"result\":{\"payload\":" + payload + "}}";
}

// A message whose unformatted text has the length.
static std::string message_of(size_t length)
{
    return "{\"k\":\"" + std::string(length - 8, 'x') + "\"}";
}

TEST(NmMsg, PayloadOfAnAnswer)
{
    const std::string fits = message_of(5119), over = message_of(5120);
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

static std::string s_seen;

static int answer_7(uintptr_t context, const char *, const char *payload, uint32_t len)
{
    s_seen = std::to_string(context) + payload + std::to_string(len);
    return 7;
}

TEST(NmMsg, CommandsFindTheirHandler)
{
    nm_msg_table_init();
    EXPECT_EQ(nm_msg_register("probe", answer_7, "answer_7"), 0);
    for (int i = 21; i < 64; i++) // all free entries but none: the first one of a name wins
        EXPECT_EQ(nm_msg_register("probe", nm_msg_forwarding, "nm_msg_forwarding"), 0);
    EXPECT_EQ(nm_msg_register("one-too-many", answer_7, "answer_7"), -1);
    const struct {
        std::string payload;
        int result;
        const char *line;
    } cases[] = {
        {"[{\"type\":\"probe\"}]", 7, "Processing msg: 'probe' ...\n"},
        {"[{\"type\":\"Probe\"}]", -1,
         "Unknown msg: {\"status\":200,\"result\":{\"payload\":[{\"type\":\"Probe\"}]}}!\n"},
        {"[{\"type\":\"one-too-many\"}]", -1, "Unknown msg: "},
        {"[{\"x\":1}]", -1, "Unknown msg: "},
        {"[{\"type\":7}]", -1, "Unknown msg: "},
        {"[{\"type\":\"" + std::string(511, 't') + "\"}]", -1, "Unknown msg: "},
        {"[{\"type\":\"" + std::string(512, 't') + "\"}]", -1, "value_len: 512 not enough, needed matched_len: 513, "},
        {"[]", 0, "Receive empty payload\n"},
        {"[{\"type\":\"trigger\",\"param\":{}}]", 0, "Processing msg: 'trigger' ...\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.payload);
        LogLines log;
        EXPECT_EQ(nm_msg_process(3, answer_with(c.payload).c_str()), c.result);
        EXPECT_EQ(log.count(c.line), 1);
    }
    EXPECT_EQ(s_seen, "3{\"type\":\"probe\"}16");
}
