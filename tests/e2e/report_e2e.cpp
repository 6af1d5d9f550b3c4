// Reports and everything the device says, as they reach NM.
#include <gtest/gtest.h>

#include "harness.h"

TEST(Report, RunStatusAndServicesByNmsStrategy)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    const std::string service = stage.agent.dir + "/service";
    ASSERT_TRUE(device_service_add(service, "{\"name\":\"one\"}") && device_service_add(service, "{\"name\":\"two\"}"));
    NmStrategy strategy;
    strategy.action = "start";
    strategy.system_period_s = 1;
    strategy.mode = "immediate_delay"; // empties the file with each report
    strategy.limit_kib = 100;
    nm_sim_queue(stage.nm, nm_command_device_status(strategy));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "working/services", 2, k_wait_ms));
    EXPECT_EQ(nm_sim_request(stage.nm, "working/services", 0).body,
              "{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"SN00000001\",\n\t\"services\":{\"name\":\"one\"}\n}");
    EXPECT_TRUE(text_has(nm_sim_request(stage.nm, "working/services", 1).body, "two"));
    EXPECT_EQ(device_sim_frame(stage.device, "service-strategy", 0).text,
              "{\t\"type\":\"service-strategy\",\t\"ver\":\"1.3\",\t\"serviceStrategy\":{\n\t\"mode\":\t\"immediate_"
              "delay\",\n"
              "\t\"limit\":\t100\n}}");

    ASSERT_TRUE(device_service_add(service, "{\"name\":\"three\"}"));
    for (int i = 0; i < 40 && nm_sim_count(stage.nm, "working/services") < 3; i++) { // dropped during a report
        ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"service-status\"}"));
        (void)nm_sim_wait_for(stage.nm, "working/services", 3, 1000);
    }
    EXPECT_TRUE(text_has(nm_sim_request(stage.nm, "working/services", 2).body, "three")); // one and two are gone
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "runstatus", 2, k_wait_ms));
    EXPECT_EQ(stage_end(&stage), "");
}

static const struct {
    const char *text;
    const char *name; // of the request at NM; "" for none
    const char *body;
    const char *answer_type; // "" for none
    const char *answer;
} k_messages[] = {
    {"{\"type\":\"cfg-result\",\"sessionid\":\"a\"}", "cfgResult", "{\"type\":\"cfg-result\",\"sessionid\":\"a\"}",
     "cfg-ack", "{\t\"sessionid\":\"a\",\t\"type\":\"cfg-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}"},
    {"{ \"type\":\"backup-result\", \"sessionid\":\"b\" }", "backupResult",
     "{ \"type\":\"backup-result\", \"sessionid\":\"b\" }", "backup-ack",
     "{\t\"sessionid\":\"b\",\t\"type\":\"backup-ack\",\t\"result\":false,\t\"cause\":\"no such "
     "task\",\t\"ver\":\"\"}"},
    {"{\"type\":\"alarm-info\",\"msgId\":7,\"payload\":{\"level\":2}}", "alarm", "[{\n\t\"level\":\t2\n}]", "alarm-ack",
     "{\t\"type\":\"alarm-ack\",\t\"msgId\":7,\t\"result\":true,\t\"ver\":\"\"}"},
    {"{\"type\":\"call-history\",\"payload\":[1,2]}", "callhistory", "[1, 2]", "", ""},
    {"{\"type\":\"port-status\",\"ports\":[]}", "ports", "{\"type\":\"port-status\",\"ports\":[]}", "", ""},
    {"{\"type\":\"ping\"}", "", "", "pong", "{\n\t\"type\":\"pong\"\n}\n"},
    {"{\"type\":\"online-status\"}", "", "", "online-status-ack",
     "{\t\"type\":\"online-status-ack\",\t\"result\":\"online\",\t\"cause\":\"\",\t\"ver\":\"0.1\"}"},
};

// Then NM asks for the status files, which are posted as they stand.
TEST(Report, DeviceMessagesAndQueries)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false) && stage_fast_heartbeat(&stage));
    nm_sim_set_fault(stage.nm, "backupResult", {NM_FAULT_REFUSE, 0, -1, "no such task"});
    for (const auto &row : k_messages) {
        SCOPED_TRACE(row.text);
        ASSERT_TRUE(device_sim_send(stage.device, row.text));
        if (*row.name) {
            ASSERT_TRUE(nm_sim_wait_for(stage.nm, row.name, 1, k_wait_ms));
            EXPECT_EQ(nm_sim_request(stage.nm, row.name, 0).body, row.body);
        }
        if (*row.answer_type) {
            ASSERT_TRUE(device_sim_wait_for(stage.device, row.answer_type, 1, k_wait_ms));
            EXPECT_EQ(device_sim_frame(stage.device, row.answer_type, 0).text, row.answer);
        }
    }
    for (const std::string file : {"device", "port"}) {
        ASSERT_TRUE(stage_command(&stage, file == "port" ? "{\"type\":\"port-status\"}" : "{\"type\":\"dev-info\"}"));
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, file, 1, k_wait_ms));
        EXPECT_EQ(nm_sim_request(stage.nm, file, 0).body, file_text(stage.agent.dir + "/" + file));
    }
    EXPECT_EQ(stage_end(&stage), "");
}
