#include "nm/nm_msg.h"
#include "nm/nm_msg_internal.h"

#include "support.h"

static std::string answer_with(const std::string &payload)
{
    return "{\"status\":200,\"result\":{\"payload\":" + payload + "}}";
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
