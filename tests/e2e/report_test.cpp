// Reports and everything the device says, as they reach NM.
#include <gtest/gtest.h>

#include "harness.h"

TEST(Report, RunStatusAndServicesByNmsStrategy)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    const std::string service = stage.agent.dir + "/service";
    ASSERT_TRUE(device_service_add(service, "{\"name\":\"one\"}") && device_service_add(service, "{\"name\":\"two\"}"));
    nm_sim_queue(stage.nm, nm_command_device_status({"start", 1, "immediate_delay", -1, 100})); // empties the file
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "working/services", 2, k_wait_ms));
    EXPECT_EQ("{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"SN00000001\",\n\t\"services\":{\"name\":\"one\"}\n}",
              nm_sim_request(stage.nm, "working/services", 0).body);
    EXPECT_TRUE(text_has(nm_sim_request(stage.nm, "working/services", 1).body, "two"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "service-strategy", 1, k_wait_ms));

    ASSERT_TRUE(device_service_add(service, "{\"name\":\"three\"}"));
    for (int i = 0; i < 40 && nm_sim_count(stage.nm, "working/services") < 3; i++) { // dropped during a report
        ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"service-status\"}"));
        (void)nm_sim_wait_for(stage.nm, "working/services", 3, 1000);
    }
    EXPECT_TRUE(text_has(nm_sim_request(stage.nm, "working/services", 2).body, "three")); // one and two are gone
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "runstatus", 2, k_wait_ms));
    EXPECT_EQ("", stage_end(&stage));
}

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
