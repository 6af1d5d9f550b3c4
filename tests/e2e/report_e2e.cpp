// Reports and everything the device says, as they reach NM.
#include <gtest/gtest.h>

#include <csignal>

#include "harness.h"

static bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

TEST(Report, RunStatusAndServicesByNmsStrategy)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
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
    EXPECT_TRUE(has(nm_sim_request(stage.nm, "working/services", 1).body, "two"));
    EXPECT_EQ(device_sim_frame(stage.device, "service-strategy", 0).text,
              "{\t\"type\":\"service-strategy\",\t\"ver\":\"1.3\",\t\"serviceStrategy\":{\n\t\"mode\":\t\"immediate_"
              "delay\",\n"
              "\t\"limit\":\t100\n}}");

    ASSERT_TRUE(device_service_add(service, "{\"name\":\"three\"}"));
    for (int i = 0; i < 40 && nm_sim_count(stage.nm, "working/services") < 3;
         i++) { // dropped while a report still runs
        ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"service-status\"}"));
        (void)nm_sim_wait_for(stage.nm, "working/services", 3, 1000);
    }
    EXPECT_TRUE(has(nm_sim_request(stage.nm, "working/services", 2).body, "three")); // one and two are gone
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "runstatus", 2, k_wait_ms));
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}

struct DeviceMessage {
    const char *text;
    const char *name; // of the request at NM; "" for none
    const char *body;
    const char *answer_type; // "" for none
    const char *answer;
};

static const DeviceMessage k_messages[] = {
    {"{\"type\":\"cfg-result\",\"sessionid\":\"a\"}", "cfgResult", "{\"type\":\"cfg-result\",\"sessionid\":\"a\"}",
     "cfg-ack", "{\t\"sessionid\":\"a\",\t\"type\":\"cfg-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}"},
    {"{ \"type\":\"backup-result\", \"sessionid\":\"b\" }", "backupResult",
     "{ \"type\":\"backup-result\", \"sessionid\":\"b\" }", "backup-ack",
     "{\t\"sessionid\":\"b\",\t\"type\":\"backup-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}"},
    {"{\"type\":\"alarm-info\",\"msgId\":7,\"payload\":{\"level\":2}}", "alarm", "[{\n\t\"level\":\t2\n}]", "alarm-ack",
     "{\t\"type\":\"alarm-ack\",\t\"msgId\":7,\t\"result\":true,\t\"ver\":\"\"}"},
    {"{\"type\":\"call-history\",\"payload\":[1,2]}", "callhistory", "[1, 2]", "", ""},
    {"{\"type\":\"port-status\",\"ports\":[]}", "ports", "{\"type\":\"port-status\",\"ports\":[]}", "", ""},
    {"{\"type\":\"ping\"}", "", "", "pong", "{\n\t\"type\":\"pong\"\n}\n"},
    {"{\"type\":\"online-status\"}", "", "", "online-status-ack",
     "{\t\"type\":\"online-status-ack\",\t\"result\":\"online\",\t\"cause\":\"\",\t\"ver\":\"0.1\"}"},
};

static void run_device_messages(bool https)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, https));
    for (const DeviceMessage &row : k_messages) {
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
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}

TEST(Report, DeviceMessagesOverHttp)
{
    run_device_messages(false);
}

TEST(Report, DeviceMessagesOverHttps)
{
    run_device_messages(true);
}

// NM's refusal reaches the device in words, its silence as a plain false.
TEST(Report, RefusedAndUnansweredResults)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    NmFault refusal;
    refusal.kind = NM_FAULT_REFUSE;
    refusal.text = "no such task";
    nm_sim_set_fault(stage.nm, "cfgResult", refusal);
    ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"cfg-result\",\"sessionid\":\"a\"}"));
    ASSERT_TRUE(device_sim_wait_for(stage.device, "cfg-ack", 1, k_wait_ms));
    EXPECT_EQ(device_sim_frame(stage.device, "cfg-ack", 0).text,
              "{\t\"sessionid\":\"a\",\t\"type\":\"cfg-ack\",\t\"result\":false,\t\"cause\":\"no such "
              "task\",\t\"ver\":\"\"}");

    NmFault closing;
    closing.kind = NM_FAULT_CLOSE;
    nm_sim_set_fault(stage.nm, "backupResult", closing);
    ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"backup-result\",\"sessionid\":\"b\"}"));
    ASSERT_TRUE(device_sim_wait_for(stage.device, "backup-ack", 1, k_wait_ms));
    EXPECT_TRUE(has(device_sim_frame(stage.device, "backup-ack", 0).text, "\"result\":false,\t\"cause\":\"\""));
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}

// NM asks for the status files; they are posted as they stand.
TEST(Report, QueriesPostTheStatusFiles)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
    ASSERT_TRUE(stage_command(&stage, "{\"type\":\"dev-info\"}"));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "device", 1, k_wait_ms));
    EXPECT_EQ(nm_sim_request(stage.nm, "device", 0).body, file_text(stage.agent.dir + "/device"));
    ASSERT_TRUE(stage_command(&stage, "{\"type\":\"port-status\"}"));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "port", 1, k_wait_ms));
    EXPECT_EQ(nm_sim_request(stage.nm, "port", 0).body, file_text(stage.agent.dir + "/port"));
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}

// Frames of every shape on one link; the good ones between them are answered, in order.
TEST(Report, DeviceStreamInPieces)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    const std::string ping = "{\"type\":\"ping\"}";
    const std::string frame = device_frame_bytes((unsigned)ping.size(), ping);
    int pongs = 0;
    ASSERT_TRUE(device_sim_send_slowly(stage.device, ping, 2)); // byte by byte
    ASSERT_TRUE(device_sim_wait_for(stage.device, "pong", ++pongs, k_wait_ms));
    ASSERT_TRUE(device_sim_send_raw(stage.device, device_frame_bytes(0, "") + frame + frame)); // an empty one first
    ASSERT_TRUE(device_sim_wait_for(stage.device, "pong", pongs += 2, k_wait_ms));
    ASSERT_TRUE(device_sim_send(stage.device, "no JSON") && device_sim_send(stage.device, ping));
    ASSERT_TRUE(device_sim_wait_for(stage.device, "pong", ++pongs, k_wait_ms));

    // A connection that ends inside a frame: the agent comes again.
    ASSERT_TRUE(device_sim_send_raw(stage.device, frame.substr(0, 9)));
    device_sim_drop(stage.device);
    ASSERT_TRUE(device_sim_wait_connected(stage.device, 2, k_wait_ms));
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}
