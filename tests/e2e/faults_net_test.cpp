// Faults of the network between agent and NM, byte by byte: whatever happens to one post, the next one is right.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "harness.h"
#include "sim_socket.h"

// Stands between agent and NM and passes bytes on until a limit is met; one connection at a time.
struct Relay {
    int nm_port = 0, port = 0, listener = -1;
    std::atomic<long> up{-1};       // bytes of the agent that still pass on a new connection; -1: all
    std::atomic<long> down{-1};     // of NM
    std::atomic<bool> stall{false}; // at the limit the connection stands still; else it is reset
    std::atomic<bool> over{false};
    std::thread thread;
    ~Relay();
};

// Passes on what has come. False at an end or at the limit.
static bool pass(int from, int to, long *left)
{
    char buffer[4096];
    const size_t room = *left < 0 ? sizeof(buffer) : std::min<size_t>(sizeof(buffer), (size_t)*left);
    const ssize_t length = room == 0 ? 0 : recv(from, buffer, room, 0);
    *left -= *left < 0 ? 0 : length;
    return length > 0 && send(to, buffer, (size_t)length, MSG_NOSIGNAL) == length && *left != 0;
}

static void relay_serve(Relay *relay, int agent)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)relay->nm_port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int nm = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    long up = relay->up, down = relay->down;
    bool passing = up != 0 && connect(nm, (sockaddr *)&addr, sizeof(addr)) == 0;
    while (passing && !relay->over) {
        pollfd ends[] = {{agent, POLLIN, 0}, {nm, POLLIN, 0}};
        if (poll(ends, 2, 20) > 0) {
            passing = (!ends[0].revents || pass(agent, nm, &up)) && (!ends[1].revents || pass(nm, agent, &down));
        }
    }
    while (relay->stall && !relay->over) {
        poll(nullptr, 0, 20);
    }
    const linger hard = {1, 0};
    setsockopt(agent, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close(agent);
    close(nm);
}

static void relay_start(Relay *relay, int nm_port)
{
    relay->nm_port = nm_port;
    relay->listener = sim_listen_tcp("127.0.0.1", &relay->port);
    relay->thread = std::thread([relay] {
        while (!relay->over) {
            pollfd ready = {relay->listener, POLLIN, 0};
            const int fd = poll(&ready, 1, 20) > 0 ? accept4(relay->listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
            if (fd >= 0) {
                relay_serve(relay, fd);
            }
        }
    });
}

Relay::~Relay()
{
    over = true;
    thread.join();
    close(listener);
}

struct PostFault {
    const char *name;
    NmFault fault;
    const char *result = "false"; // in the ack to the device; empty: there is none
    const char *line = "";        // among the agent's
    long up = -1, down = -1;      // bytes that pass
    bool stall = false;
    size_t size = 0; // of the device's message
};

static const char k_good[] = "{\"status\":200,\"result\":{}}";
static const size_t k_mib = 1 << 20;

static std::string message(size_t size)
{
    const std::string head = "{\"type\":\"cfg-result\",\"sessionid\":\"s\",\"pad\":\"", tail = "\"}";
    return head + std::string(size > head.size() + 2 ? size - head.size() - 2 : 1, 'x') + tail;
}

static const PostFault k_post_faults[] = {
    {"reset at once", {}, "false", "", 0},
    {"reset in the request line", {}, "false", "", 10},
    {"reset in a header", {}, "false", "", 120},
    {"reset in the body", {}, "false", "", 60000, -1, false, k_mib},
    {"reset before the answer", {}, "false", "", -1, 0},
    {"reset in the status", {}, "false", "", -1, 8},
    {"reset in the answer's headers", {}, "false", "", -1, 30},
    {"reset in the answer's body", {}, "false", "", -1, 80},
    {"NM stops reading", {}, "false", "Receive response message len: 0", 60000, -1, true, k_mib},
    {"a whole MiB", {}, "true", "", -1, -1, false, k_mib},
    {"after 1.9 s", {NM_FAULT_BODY, 1900, -1, k_good}, "true"},
    {"after 2.1 s", {NM_FAULT_BODY, 2100, -1, k_good}, "true"},
    {"after 6 s", {NM_FAULT_BODY, 6000, -1, k_good}, "false", "select timeout!"},
    {"closed", {NM_FAULT_CLOSE, 0, -1, ""}, "false", "Receive response message len: "},
    {"two segments", {NM_FAULT_TWO_SEGMENTS, 0, -1, ""}, "false", "p_json_end is NULL!"},
    {"4,000 bytes", {NM_FAULT_LONG, 0, -1, ""}, "", "Error before JSON content: "},
    {"chunked", {NM_FAULT_CHUNKED, 0, -1, ""}, "true"},
    {"broken JSON", {NM_FAULT_BODY, 0, -1, "{\"status\":200,}"}, "", "Error before JSON content: "},
};

static void expect_ack(Stage *stage, const std::string &text, const char *result)
{
    const int before = device_sim_count(stage->device, "cfg-ack");
    ASSERT_TRUE(device_sim_send(stage->device, text));
    ASSERT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", before + 1, k_wait_ms));
    const std::string ack = device_sim_frame(stage->device, "cfg-ack", -1).text;
    EXPECT_NE(ack.find("\"sessionid\":\"s\""), std::string::npos) << ack;
    EXPECT_NE(ack.find(std::string("\"result\":") + result), std::string::npos) << ack;
}

static void stage_big_messages(Stage *stage, Relay *relay)
{
    stage_prepare(stage, false);
    relay_start(relay, nm_sim_port(stage->nm));
    device_cfg_set(&stage->cfg, "port", std::to_string(relay->port));
    device_cfg_set(&stage->cfg, "max_dev_msg_size", "2048");
    device_cfg_set(&stage->cfg, "dev_msg_buffer_size", "4096");
    stage_write(*stage);
    ASSERT_TRUE(agent_start(&stage->agent));
    ASSERT_TRUE(stage_wait_online(stage));
}

TEST(FaultsNet, AfterEachSpoiltPostTheNextIsRight)
{
    Relay relay;
    Stage stage;
    stage_big_messages(&stage, &relay);
    for (const PostFault &row : k_post_faults) {
        SCOPED_TRACE(row.name);
        nm_sim_set_fault(stage.nm, "cfgResult", row.fault);
        relay.stall = row.stall;
        relay.up = row.up;
        relay.down = row.down;
        if (*row.result) {
            expect_ack(&stage, message(row.size), row.result);
        } else {
            ASSERT_TRUE(device_sim_send(stage.device, message(row.size)));
        }
        EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
        nm_sim_clear_faults(stage.nm);
        relay.stall = false;
        relay.up = relay.down = -1;
        expect_ack(&stage, message(0), "true");
    }
    // NM goes away with the request in its hands and comes back.
    const int posts = nm_sim_count(stage.nm, "cfgResult"), acks = device_sim_count(stage.device, "cfg-ack");
    nm_sim_set_fault(stage.nm, "cfgResult", {NM_FAULT_SILENCE, 0, 1, ""});
    ASSERT_TRUE(device_sim_send(stage.device, message(0)));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "cfgResult", posts + 1, k_wait_ms));
    nm_sim_absent(stage.nm);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Posting result to NM failed!"));
    ASSERT_TRUE(nm_sim_return(stage.nm));
    ASSERT_TRUE(device_sim_wait_for(stage.device, "cfg-ack", acks + 1, k_wait_ms)); // or it is taken for the next one
    expect_ack(&stage, message(0), "true");
    EXPECT_EQ(nm_sim_request(stage.nm, "cfgResult", -1).body, message(0));
    EXPECT_EQ(device_sim_wrong(stage.device), "");

    // A stop while NM does not take a large post.
    relay.stall = true;
    relay.up = 60000;
    ASSERT_TRUE(device_sim_send(stage.device, message(k_mib)));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "TCP outgoing data has been cut"));
    const long long start = monotonic_ms();
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_LE(monotonic_ms() - start, 2000);
}

// The device moves to another NM; the old one takes connections and answers no handshake. A result that was still sent
// to the old one is not waited for when the device is online with the new one.
TEST(FaultsNet, NmMoves)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, true));
    NmOptions options;
    options.https = true;
    NmSim *old_nm = stage.nm;
    stage.nm = nm_sim_start(options);
    nm_sim_set_fault(old_nm, "accept", {NM_FAULT_SILENCE, 0, -1, ""});
    device_cfg_set(&stage.cfg, "port", std::to_string(nm_sim_port(stage.nm) - 1));
    device_cfg_set_text(&stage.cfg, "pversion", "2.5.0"); // the port alone moves it without a restart
    stage_write(stage);
    ASSERT_TRUE(device_sim_send(stage.device, "{\"type\":\"init-cfg-changed\"}"));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Start timer for 'enable_init_flag', len: 10000 ms"));
    expect_ack(&stage, message(0), "false");
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully"));
    expect_ack(&stage, message(0), "true");
    EXPECT_EQ(stage_end(&stage), "");
    nm_sim_stop(old_nm);
}

// The kept connection: what comes too late for one heartbeat is never taken for the answer to another.
TEST(FaultsNet, LateAnswersToHeartbeats)
{
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
    nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, -1, ""});
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Change to http mode."));
    for (int late_ms : {2100, 6000}) {
        const int before = nm_sim_count(stage.nm, "heartbeat");
        nm_sim_set_fault(stage.nm, "heartbeat", {NM_FAULT_WORD, late_ms, 1, "rec"});
        ASSERT_TRUE(nm_sim_wait_for(stage.nm, "heartbeat", before + 1 + late_ms / 1000, k_wait_ms));
        nm_sim_queue(stage.nm, nm_command_forward("ping", "")); // answers and posts are still in step
        ASSERT_TRUE(device_sim_wait_for(stage.device, "ping", late_ms == 2100 ? 1 : 2, k_wait_ms));
        EXPECT_FALSE(agent_has_log(stage.agent, "Re-initialize device..."));
    }
    nm_sim_set_fault(stage.nm, "heartbeat", {NM_FAULT_WORD, 1900, 1, "rec"});
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Re-initialize device...")); // in time
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(stage), "");
}

// NM at 10.9.0.1 in a network of its own, and a new network for the calling thread, 10.9.0.2 on dev0, with a cable
// between them. Null where that is not permitted.
static NmSim *nm_behind_cable()
{
    NmSim *nm = nullptr;
    NmOptions options;
    options.https = true;
    options.ip = "10.9.0.1";
    const std::string cable = "ip link add nm0 type veth peer name dev0 netns " + std::to_string(gettid());
    const bool permitted = unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0;
    std::thread([&] {
        if (permitted && unshare(CLONE_NEWNET) == 0 && system(cable.c_str()) == 0 &&
            system("ip addr add 10.9.0.1/24 dev nm0 && ip link set nm0 up") == 0) {
            nm = nm_sim_start(options); // its threads stay in the network that they are started in
        }
    }).join();
    EXPECT_TRUE(!nm || system("ip addr add 10.9.0.2/24 dev dev0 && ip link set dev0 up") == 0);
    return nm;
}

// Frames to a hardware address that nobody has vanish without a word: no link goes down, no host is unreachable.
static const char k_cut[] = "ip neigh replace 10.9.0.1 lladdr 02:00:00:00:00:99 nud permanent dev dev0";
static const char k_mend[] = "ip neigh del 10.9.0.1 dev dev0";

// Descriptors and threads while it rests: the least in a second, so that no beat is counted.
static std::pair<int, int> held(int pid)
{
    std::pair<int, int> least = {proc_descriptors(pid), proc_threads(pid)};
    for (int i = 0; i < 50; i++) {
        poll(nullptr, 0, 20);
        least = {std::min(least.first, proc_descriptors(pid)), std::min(least.second, proc_threads(pid))};
    }
    return least;
}

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
    if (!nm) {
        GTEST_SKIP() << "networks of its own are not permitted here";
    }
    Stage stage;
    stage_prepare(&stage, true);
    nm_sim_stop(stage.nm);
    stage.nm = nm;
    device_cfg_set(&stage.cfg, "port", std::to_string(nm_sim_port(nm) - 1));
    device_cfg_set(&stage.cfg, "host", "\"10.9.0.1\"");
    device_cfg_set(&stage.cfg, "interface", "\"dev0\"");
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(stage_wait_online(&stage));
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
    keep_connection(&stage);
    const auto before = held(stage.agent.pid);

    ASSERT_EQ(system(k_cut), 0);
    const long long cut_ms = monotonic_ms();
    nm_sim_queue(nm, nm_command_forward("ping", "")); // waits with NM
    expect_ack(&stage, message(0), "false");          // stays with the device
    EXPECT_TRUE(agent_wait_log(&stage.agent, "nonresponse for http trigger has reached the upper limit!"));
    EXPECT_LE(monotonic_ms() - cut_ms, 25000);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "nonresponse for udp trigger has reached the upper limit!"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Acting device failed! Retry..."));
    ASSERT_EQ(system(k_mend), 0);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", 1, k_wait_ms));
    EXPECT_NE(device_sim_frame(stage.device, "online-status-notify", -1).text.find("\"online\""), std::string::npos);
    expect_ack(&stage, message(0), "true");
    EXPECT_EQ(nm_sim_request(nm, "cfgResult", -1).body, message(0));
    keep_connection(&stage);
    EXPECT_EQ(held(stage.agent.pid), before);

    ASSERT_EQ(system(k_cut), 0);
    ASSERT_TRUE(device_sim_send(stage.device, message(0)));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "TCP connecting"));
    const long long stop_ms = monotonic_ms();
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
    EXPECT_LE((monotonic_ms() - stop_ms) % k_signal_again_ms, 2000);
    EXPECT_EQ(device_sim_count(stage.device, "ping"), 1);
    EXPECT_EQ(stage_wrong(stage), "");
}

// The packets to NM are dropped while the connections stay open.
TEST(FaultsNet, BlackHole)
{
    std::thread(run_black_hole).join(); // takes its networks with it
}
