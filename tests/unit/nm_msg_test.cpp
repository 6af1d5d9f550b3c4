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
    std::vector<Texts> rows = examples("payloads");
    rows.push_back({answer_with("[" + fits + "]"), "good", fits});
    rows.push_back({answer_with("[{}," + over + ",{}]"), "fails", "{}"});
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0].substr(0, 60));
        char buf[NM_PAYLOAD_SIZE] = {};
        uint32_t len = 77;
        EXPECT_EQ(row[1], nm_payload_extract(row[0].c_str(), buf, sizeof(buf), &len) == 0 ? "good" : "fails");
        EXPECT_EQ(row[2], buf);
        EXPECT_EQ(row[2].empty() ? 77 : row[1] == "fails" ? over.size() : row[2].size(), len); // 77: none is stored
    }
}

static std::string nested(size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

// Commands that cannot be carried out are told in a line; so is a status that NM does not take.
TEST(NmMsg, CommandsThatFail)
{
    std::vector<Texts> rows = examples("failed-commands");
    rows.push_back({"{\"type\":" + nested(300) + "}", "Unknown msg: "});
    rows.push_back({nested(1500), "parsing payload failed!"});
    rows.push_back(
        {"{\"type\":\"" + std::string(512, 't') + "\"}", "value_len: 512 not enough, needed matched_len: 513"});
    nm_msg_table_init();
    NmPeer nm;
    nm.answer_set("A1", {""});
    info_edit([](PluginInfo *next) { (void)text_set(next->device_path, "/etc/passwd"); });
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0].substr(0, 60));
        LogLines log;
        (void)nm_msg_process(0, answer_with("[" + row[0] + "]").c_str());
        EXPECT_TRUE(log.has(row[1]));
    }
}
