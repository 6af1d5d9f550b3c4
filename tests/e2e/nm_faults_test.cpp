// Faults of NM and of the network between: whatever happens to one post, the next one is right.
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "harness.h"

static const size_t k_mib = 1 << 20;

static std::string message(size_t size = 0)
{
    const std::string head = R"({"type":"cfg-result","sessionid":"s","pad":")";
    return head + std::string(std::max(size, head.size() + 3) - head.size() - 2, 'x') + "\"}";
}

static const char k_good[] = "{\"status\":200,\"result\":{}}";

static const struct {
    const char *name;
    const char *result; // in the ack to the device; empty: there is none
    const char *line;   // among the agent's
    NmFault fault;
    size_t size = 0; // of the device's message
} k_post_faults[] = {
    {"a whole MiB", "true", "", {}, k_mib},
    {"after 1.9 s", "true", "", {NM_FAULT_BODY, 1900, -1, k_good}},
    {"after 2.1 s", "true", "", {NM_FAULT_BODY, 2100, -1, k_good}},
    {"after 6 s", "false", "select timeout!", {NM_FAULT_BODY, 6000, -1, k_good}},
    {"closed", "false", "Receive response message len: ", {NM_FAULT_CLOSE, 0, -1, ""}},
    {"status 404", "false", "Http result: 404", {NM_FAULT_STATUS, 0, -1, ""}},
    {"half", "false", "", {NM_FAULT_HALF, 0, -1, ""}},
    {"two segments", "false", "p_json_end is NULL!", {NM_FAULT_TWO_SEGMENTS, 0, -1, ""}},
    {"4,000 bytes", "", "Error before JSON content: ", {NM_FAULT_LONG, 0, -1, ""}},
    {"chunked", "true", "", {NM_FAULT_CHUNKED, 0, -1, ""}},
    {"broken JSON", "", "Error before JSON content: ", {NM_FAULT_BODY, 0, -1, "{\"status\":200,}"}},
};

// NM takes a connection for a large post and reads nothing of it.
static void stall_a_post(Stage *stage)
{
    stage_nm_silent(stage);
    ASSERT_TRUE(device_sim_send(stage->device, message(k_mib)));
    ASSERT_TRUE(agent_wait_log(&stage->agent, "TCP outgoing data has been cut"));
}

TEST(NmFaults, AfterEachSpoiltPostTheNextIsRight)
{
    Stage stage;
    stage.cfg = {{"max_dev_msg_size", "2048"}, {"dev_msg_buffer_size", "4096"}};
    ASSERT_TRUE(stage_online(&stage, false));
    for (const auto &row : k_post_faults) {
        SCOPED_TRACE(row.name);
        nm_sim_set_fault(stage.nm, "cfgResult", row.fault);
        if (*row.result)
            EXPECT_EQ(row.result, stage_result(&stage, message(row.size)));
        else
            ASSERT_TRUE(device_sim_send(stage.device, message()));
        EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
        nm_sim_clear_faults(stage.nm);
        EXPECT_EQ("true", stage_result(&stage, message()));
    }
    // NM stops reading, resets the connection with the request in its hands, or goes away with it and comes back.
    for (void (*const then)(NmSim *) : {nm_sim_clear_faults, nm_sim_drop_connections, nm_sim_absent}) {
        const int acks = device_sim_count(stage.device, "cfg-ack");
        stall_a_post(&stage);
        then(stage.nm);
        EXPECT_TRUE(agent_wait_log(&stage.agent, "Posting result to NM failed!"));
        nm_sim_clear_faults(stage.nm);
        ASSERT_TRUE(then != nm_sim_absent || nm_sim_return(stage.nm));
        ASSERT_TRUE(device_sim_wait_for(stage.device, "cfg-ack", acks + 1, k_wait_ms));
        EXPECT_EQ("true", stage_result(&stage, message()));
        EXPECT_EQ(message(), nm_sim_request(stage.nm, "cfgResult", -1).body);
    }
    EXPECT_EQ("", device_sim_wrong(stage.device));
    stall_a_post(&stage);
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM, 2000));
}

// NM at 10.9.0.1 in a network of its own, and a new network for the calling thread, 10.9.0.2 on dev0, with a cable
// between them. Null where that is not permitted.
static NmSim *nm_behind_cable()
{
    NmSim *nm = nullptr;
    NmOptions options;
    options.https = true;
    options.ip = "10.9.0.1";
    const std::string cable = "ip link add nm0 type veth peer name dev0 netns " + std::to_string(gettid()) +
                              " && ip addr add 10.9.0.1/24 dev nm0 && ip link set nm0 up";
    const bool permitted = unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0;
    std::thread([&] {
        if (permitted && unshare(CLONE_NEWNET) == 0 && system(cable.c_str()) == 0)
            nm = nm_sim_start(options); // its threads stay in the network that they are started in
    }).join();
    EXPECT_TRUE(!nm || system("ip addr add 10.9.0.2/24 dev dev0 && ip link set dev0 up") == 0);
    return nm;
}

// Frames to a hardware address that nobody has vanish without a word: no link goes down, no host is unreachable.
static const char k_cut[] = "ip neigh replace 10.9.0.1 lladdr 02:00:00:00:00:99 nud permanent dev dev0";
static const char k_mend[] = "ip neigh del 10.9.0.1 dev dev0";

// One heartbeat over HTTP: from then on there is a kept connection.
static void keep_connection(Stage *stage)
{
    nm_sim_set_fault(stage->nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Connection type: HTTP(2) has been added"));
}

// Five beats of at most 1 s until the next expiry, 1 s for UDP and 2 s for HTTP, then bring-up passes every 10 s.
static void run_black_hole()
{
    NmSim *nm = nm_behind_cable();
    if (!nm)
        GTEST_SKIP() << "networks of its own are not permitted here";
    Stage stage;
    stage.cfg = {{"port", std::to_string(nm_sim_port(nm) - 1)}, {"host", "\"10.9.0.1\""}, {"interface", "\"dev0\""}};
    ASSERT_TRUE(stage_online(&stage, true));
    nm_sim_stop(std::exchange(stage.nm, nm));
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
    keep_connection(&stage);
    const std::pair<int, int> before = proc_usage_at_rest(stage.agent.pid);

    ASSERT_EQ(0, system(k_cut));
    const long long cut_ms = monotonic_ms();
    nm_sim_queue(nm, nm_command_forward("ping", "")); // waits with NM
    EXPECT_EQ("false", stage_result(&stage));         // stays with the device
    EXPECT_TRUE(agent_wait_log(&stage.agent, "nonresponse for http trigger has reached the upper limit!"));
    EXPECT_LE(monotonic_ms() - cut_ms, 25000);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "nonresponse for udp trigger has reached the upper limit!"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Acting device failed! Retry..."));
    ASSERT_EQ(0, system(k_mend));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", 1, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage.device, "online-status-notify", -1).text, "\"online\""));
    EXPECT_EQ("true", stage_result(&stage));
    EXPECT_TRUE(nm_sim_wait_for(nm, "udp", nm_sim_count(nm, "udp") + 1, k_wait_ms)); // UDP is back
    keep_connection(&stage);
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, before));
    EXPECT_EQ("", stage_end(&stage));
    EXPECT_EQ(1, device_sim_count(stage.device, "ping"));
}

// The packets to NM are dropped while the connections stay open.
TEST(NmFaults, BlackHole)
{
    std::thread(run_black_hole).join(); // takes its networks with it
}
