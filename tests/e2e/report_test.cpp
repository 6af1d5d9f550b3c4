// What the device says and what NM asks for, as they reach NM.
#include <gtest/gtest.h>

#include "harness.h"

// What the device says reaches NM byte by byte. Then NM asks for the status files, which are posted as they stand.
TEST(Report, DeviceMessagesAndQueries)
{
    const struct {
        const char *text;
        const char *name;        // of the request at NM
        const char *answer = ""; // its type; "": none
    } rows[] = {
        {"{ \"type\":\"cfg-result\", \"sessionid\":\"a\" }", "cfgResult", "cfg-ack"},
        {"{\"type\":\"backup-result\",\"sessionid\":\"b\"}", "backupResult", "backup-ack"},
        {"{\"type\":\"port-status\",\"ports\":[]}", "ports"},
    };
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    nm_sim_set_fault(stage.nm, "backupResult", {NM_FAULT_REFUSE, 0, -1, "no such task"});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        ASSERT_TRUE(device_sim_send(stage.device, row.text));
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, row.name, 1, k_wait_ms));
        EXPECT_EQ(row.text, nm_sim_request(stage.nm, row.name, 0).body);
        EXPECT_TRUE(!*row.answer || device_sim_wait_for(stage.device, row.answer, 1, k_wait_ms));
    }
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "backup-ack", 0).text, "false,\t\"cause\":\"no such task\""));
    const std::pair<std::string, std::string> queries[] = {{"device", "dev-info"}, {"port", "port-status"}};
    for (const auto &query : queries) {
        ASSERT_TRUE(stage_command(&stage, "{\"type\":\"" + query.second + "\"}"));
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, query.first, 1, k_wait_ms));
        EXPECT_EQ(file_text(stage.agent.dir + "/" + query.first), nm_sim_request(stage.nm, query.first, 0).body);
    }
    EXPECT_EQ("", stage_end(&stage));
}
