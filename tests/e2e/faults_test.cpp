// Faults around the agent: what fails heals, what is hostile is told in a line, a stop comes at any moment.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <thread>

#include "harness.h"

// A command to the device and a result to NM: the agent does its work.
static void expect_works(Stage *stage)
{
    const int pings = device_sim_count(stage->device, "ping"), acks = device_sim_count(stage->device, "cfg-ack");
    nm_sim_queue(stage->nm, nm_command_forward("ping", ""));
    EXPECT_TRUE(device_sim_wait_for(stage->device, "ping", pings + 1, k_wait_ms));
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"cfg-result\",\"sessionid\":\"works\"}"));
    EXPECT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", acks + 1, k_wait_ms));
    EXPECT_NE(device_sim_frame(stage->device, "cfg-ack", -1).text.find("\"result\":true"), std::string::npos);
}

enum Moment { BEFORE, STARTED, ONLINE };

static void expect_clean_end(Stage *stage)
{
    EXPECT_EQ(agent_stop(&stage->agent, SIGTERM), SIGTERM);
    EXPECT_EQ(stage_wrong(*stage), "");
}

struct Outage {
    const char *name;
    bool https;
    Moment moment; // of the fault's begin
    NmFault fault; // of NM's answers to
    const char *request;
    void (*begin)(Stage *); // what else happens; may be null
    const char *line;       // by which the agent tells it; then NM's faults end
    void (*end)(Stage *);   // what else ends; may be null. Then it must be online again and work
};

static NmActivation detection(const std::string &host, int port)
{
    NmActivation activation;
    activation.host = host;
    activation.port = port;
    return activation;
}

// Log files on a full disk: every write to them fails.
static void fill_disk(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log";
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0);
    EXPECT_EQ(symlink("/dev/full", (dir + "/0.log").c_str()), 0);
    EXPECT_EQ(symlink("/dev/full", (dir + "/1.log").c_str()), 0);
}

static const Outage k_outages[] = {
    {"NM absent",
     false,
     BEFORE,
     {},
     "",
     [](Stage *s) { nm_sim_absent(s->nm); },
     "Acting device failed! Retry...",
     [](Stage *s) { EXPECT_TRUE(nm_sim_return(s->nm)); }},
    {"NM silent", true, BEFORE, {NM_FAULT_SILENCE, 0, -1, ""}, "active", nullptr, "select timeout!", nullptr},
    {"no TLS",
     true,
     BEFORE,
     {NM_FAULT_SILENCE, 0, 1, ""},
     "accept",
     nullptr,
     "has been added",
     [](Stage *s) {
         EXPECT_TRUE(nm_sim_wait_connections(s->nm, 1, k_wait_ms));
         nm_sim_drop_connections(s->nm);
     }},
    {"huge answer",
     false,
     BEFORE,
     {NM_FAULT_BODY, 0, -1, "{\"x\":\"" + std::string(1 << 20, 'x') + "\"}"},
     "active",
     nullptr,
     "p_json_end is NULL!",
     nullptr},
    {"deep answer",
     false,
     BEFORE,
     {NM_FAULT_BODY, 0, -1, "{\"x\":" + std::string(1500, '[') + "}"},
     "active",
     nullptr,
     "Error before JSON content: [[[",
     nullptr},
    {"half an answer", false, BEFORE, {NM_FAULT_HALF, 0, -1, ""}, "active", nullptr, "Device active failed!", nullptr},
    {"detection server without address",
     false,
     BEFORE,
     {},
     "",
     [](Stage *s) { nm_sim_set_activation(s->nm, detection("nm.invalid", -2)); },
     "gethostbyname() failed: nm.invalid",
     [](Stage *s) { nm_sim_set_activation(s->nm, NmActivation()); }},
    {"nobody on the detection port",
     false,
     BEFORE,
     {},
     "",
     [](Stage *s) { nm_sim_set_activation(s->nm, detection("", 1)); },
     "Post HTTP nm message over IP",
     nullptr},
    {"black hole while online",
     true,
     ONLINE,
     {NM_FAULT_SILENCE, 0, -1, ""},
     "",
     [](Stage *s) {
         EXPECT_TRUE(stage_fast_heartbeat(s));
         nm_sim_set_fault(s->nm, "udp", {NM_FAULT_SILENCE, 0, -1, ""});
     },
     "The time of nonresponse for http trigger has reached the upper limit!",
     nullptr},
    {"device link flaps",
     false,
     STARTED,
     {},
     "",
     [](Stage *s) {
         for (int i = 1; i <= 2; i++) { // each time as soon as it stands
             EXPECT_TRUE(device_sim_wait_connected(s->device, i, k_wait_ms));
             device_sim_drop(s->device);
         }
     },
     "Device TCP connection lost! Re-initialize device...",
     [](Stage *s) { EXPECT_TRUE(device_sim_wait_connected(s->device, 3, k_wait_ms)); }},
    {"disk full", false, BEFORE, {}, "", fill_disk, "Init cfg successfully", nullptr},
    {"log files removed",
     false,
     ONLINE,
     {},
     "",
     [](Stage *s) { EXPECT_EQ(rename((s->agent.dir + "/log").c_str(), (s->agent.dir + "/gone").c_str()), 0); },
     "Fail to read log file property!",
     nullptr},
    {"init cfg half written",
     false,
     ONLINE,
     {},
     "",
     [](Stage *s) {
         device_cfg_set_text(&s->cfg, "pversion", "2.5.0");
         const std::string text = device_cfg_text(s->cfg);
         EXPECT_TRUE(device_write_file(s->agent.dir + "/init", text.substr(0, text.size() / 2)));
         EXPECT_TRUE(device_sim_send(s->device, "{\"type\":\"init-cfg-changed\"}"));
     },
     "Error before JSON content: ",
     [](Stage *s) {
         stage_write(*s);
         EXPECT_TRUE(device_sim_send(s->device, "{\"type\":\"init-cfg-changed\"}"));
         EXPECT_TRUE(nm_sim_wait_for(s->nm, "active", 2, k_wait_ms));
     }},
};

static void outage_begin(const Outage &row, Moment moment, Stage *stage)
{
    if (row.moment != moment) {
        return;
    }
    if (row.begin) {
        row.begin(stage);
    }
    if (row.fault.kind != NM_FAULT_NONE) {
        nm_sim_set_fault(stage->nm, row.request, row.fault);
    }
}

static void run_outage(const Outage &row)
{
    SCOPED_TRACE(row.name);
    Stage stage;
    stage_prepare(&stage, row.https);
    stage_write(stage);
    outage_begin(row, BEFORE, &stage);
    EXPECT_TRUE(agent_start(&stage.agent));
    outage_begin(row, STARTED, &stage);
    EXPECT_TRUE(row.moment != ONLINE || stage_wait_online(&stage));
    outage_begin(row, ONLINE, &stage);
    EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
    nm_sim_clear_faults(stage.nm);
    if (row.end) {
        row.end(&stage);
    }
    expect_works(&stage);
    expect_clean_end(&stage);
}

// The rows spend their time waiting: they run side by side.
TEST(Faults, OutagesHeal)
{
    std::vector<std::thread> rows;
    for (const Outage &row : k_outages) {
        rows.emplace_back(run_outage, std::cref(row));
    }
    for (std::thread &row : rows) {
        row.join();
    }
}

struct Hostile {
    const char *name;
    std::string text;
    const char *line;
    int status = SIGTERM; // of the end by SIGTERM, or by itself
};

static std::string cfg_with(DeviceCfg cfg, const std::vector<std::pair<const char *, std::string>> &values)
{
    for (const auto &value : values) {
        device_cfg_set(&cfg, value.first, value.second);
    }
    return device_cfg_text(cfg);
}

static std::string nested(int depth)
{
    return std::string((size_t)depth, '[') + std::string((size_t)depth, ']');
}

TEST(Faults, HostileInitCfgs)
{
    Stage stage;
    stage_prepare(&stage, false);
    stage_write(stage);
    const std::string good = device_cfg_text(stage.cfg);
    const std::string longer = "\"" + std::string(600, 'x') + "\"";
    const Hostile rows[] = {
        {"binary", "\x7f\xff\x80\x01{\"\xc3", "Parsing init cfg failed!"},
        {"NUL bytes", std::string(100, '\0'), "Parsing init cfg failed!"},
        {"empty", "", "Reading init cfg failed! File path: ", 0},
        {"truncated", good.substr(0, good.size() / 2), "Error before JSON content: "},
        {"nested too deep", std::string(9000, '['), "Parsing init cfg failed!"},
        {"nested", cfg_with(stage.cfg, {{"x", nested(900)}}), "Init cfg successfully"},
        {"an array", "[1,2]", "Invalid port: -1!"},
        {"port as text", cfg_with(stage.cfg, {{"port", "\"443\""}}), "Not found int value for key: port!"},
        {"port too large", cfg_with(stage.cfg, {{"port", "65536"}}), "Invalid port: 65536!"},
        {"huge port", cfg_with(stage.cfg, {{"port", "1e300"}}), "Invalid port: 2147483647!"},
        {"serial as number", cfg_with(stage.cfg, {{"dev-sn", "5"}}), "Not found string value for key: dev-sn!"},
        {"host without address", cfg_with(stage.cfg, {{"host", "\"nm.invalid\""}}),
         "gethostbyname() failed: nm.invalid"},
        {"long host", cfg_with(stage.cfg, {{"host", longer}}), "gethostbyname() failed: xxx"},
        {"no such interface", cfg_with(stage.cfg, {{"interface", longer}}), "Cannot detect IP for interface: xxx"},
        {"long texts",
         cfg_with(stage.cfg, {{"dev-sn", longer},
                              {"pversion", longer},
                              {"pname", longer},
                              {"mac", longer},
                              {"device-path", longer},
                              {"interface-blacklist", longer},
                              {"platform_name", longer},
                              {"factory_name", longer}}),
         "Init cfg successfully"},
        {"no room for logs", cfg_with(stage.cfg, {{"log_path", "\"/proc/none/\""}}), "Create log dir failed!", 255},
        {"wild sizes",
         cfg_with(
             stage.cfg,
             {{"max_dev_msg_size", "1e12"}, {"dev_msg_buffer_size", "-7"}, {"max_size", "-1"}, {"max_files", "1e9"}}),
         "Init cfg successfully"},
        {"10,240 bytes", good + std::string(10240 - good.size(), ' '), "Init cfg successfully"},
        {"more than 10,240 bytes", cfg_with({{"x", "\"" + std::string(10240, 'x') + "\""}}, {}),
         "Parsing init cfg failed!"},
    };
    for (const Hostile &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(device_write_file(stage.agent.dir + "/init", row.text));
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
        EXPECT_EQ(row.status ? agent_stop(&stage.agent, SIGTERM) : agent_wait_exit(&stage.agent), row.status);
    }
}

static std::string payload(const std::string &messages)
{
    return "{\"status\":200,\"result\":{\"payload\":" + messages + "}}";
}

// A message that is size bytes long.
static std::string sized(const std::string &type, size_t size)
{
    const std::string head = "{\"type\":\"" + type + "\",\"sessionid\":\"s\",\"pad\":\"", tail = "\"}";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

TEST(Faults, HostileCommands)
{
    const Hostile rows[] = {
        {"result is a text", "{\"status\":200,\"result\":\"payload\"}", "Receive empty payload"},
        {"payload is a number", payload("7"), "Receive empty payload"},
        {"type is a number", payload("[{\"type\":1}]"), "Unknown msg: "},
        {"long type", payload("[{\"type\":\"" + std::string(512, 't') + "\"}]"),
         "value_len: 512 not enough, needed matched_len: 513"},
        {"nested", payload("[{\"type\":" + nested(300) + "}]"), "Unknown msg: "},
        {"nested too deep", payload(nested(1500)), "parsing payload failed!"},
        {"5,120 bytes", payload("[" + sized("ping", 5120) + "]"),
         "value_len: 5120 not enough, needed matched_len: 5121"},
        {"tunnel without fields", payload("[{\"type\":\"remote-web\",\"param\":[]}]"), "Invalid port: -1!"},
        {"strategy without fields", payload("[{\"type\":\"device-status\",\"param\":3}]"),
         "Not found string value for key: action!"},
        {"trigger without period", payload("[{\"type\":\"trigger\",\"param\":\"x\"}]"),
         "Processing msg: 'trigger' ..."},
    };
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, true)); // one TLS record brings the longest answer whole
    ASSERT_TRUE(stage_fast_heartbeat(&stage));
    for (const Hostile &row : rows) {
        SCOPED_TRACE(row.name);
        nm_sim_set_fault(stage.nm, "handshake", {NM_FAULT_BODY, 0, 1, row.text});
        nm_sim_queue(stage.nm, sized("ping", 5119)); // stays with NM until the next handshake
        EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
        const int pings = (int)(&row - rows) + 1;
        ASSERT_TRUE(device_sim_wait_for(stage.device, "ping", pings, k_wait_ms));
        EXPECT_EQ(device_sim_frame(stage.device, "ping", -1).text, sized("ping", 5119));
    }
    expect_clean_end(&stage);
}

// Each arrives once, in the order in which NM gave them out.
TEST(Faults, CommandsInARow)
{
    const int count = 200; // one a second
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    for (int i = -1; i < count; i++) {
        nm_sim_queue(stage.nm, i < 0 ? nm_command_trigger(1) : nm_command_forward("ping", std::to_string(i)));
    }
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", count, 2000 * count));
    EXPECT_EQ(nm_sim_count(stage.nm, "handshake"), count + 1);
    for (int i = 0; i < count; i++) {
        const std::string text = device_sim_frame(stage.device, "ping", i).text;
        EXPECT_NE(text.find("\"sessionid\":\"" + std::to_string(i) + "\""), std::string::npos) << text;
    }
    EXPECT_EQ(device_sim_count(stage.device, "ping"), count);
    expect_clean_end(&stage);
}

static int occurrences(const std::string &text, const std::string &part, size_t at = 0)
{
    int count = 0;
    for (; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        count++;
    }
    return count;
}

// The whole end: what was asked, every thread that began, the closing lines, the status.
static void expect_stop(Stage *stage, size_t from)
{
    const long long start = monotonic_ms();
    EXPECT_EQ(agent_stop(&stage->agent, SIGTERM), SIGTERM);
    EXPECT_LE((monotonic_ms() - start) % k_signal_again_ms, 2000); // since the signal that arrived
    const std::string output = agent_output(stage->agent).substr(from);
    const size_t sig = output.find("SIG: 15 is received, ready to exit!");
    const size_t raw =
        output.find("Function: sig_quit_handler calling for exit, ret: 15", std::min(sig, output.size()));
    ASSERT_NE(raw, std::string::npos) << output.substr(output.size() - std::min<size_t>(output.size(), 3000));
    EXPECT_NE(output.find("~~~~~~~~ Bye ~~~~~~~~", raw), std::string::npos);
    EXPECT_EQ(occurrences(output.substr(sig, raw - sig), " thread exited."), occurrences(output, " thread started."));
    EXPECT_EQ(occurrences(output, " thread exited.", raw), 0);
}

TEST(Faults, TwentyStopsAtRandomMoments)
{
    static const char *const k_moments[] = {"Log dir",
                                            "open successfully",
                                            "thread started.",
                                            "Device initializing...",
                                            "Start timer",
                                            "TCP connecting",
                                            "has been added, socket",
                                            "SSL init success!",
                                            "Sending HTTP request over IP",
                                            "Device activate rsp"};
    Stage stage;
    stage_prepare(&stage, true);
    stage_write(stage);
    std::minstd_rand random((unsigned)monotonic_ms());
    for (int i = 0; i < 20; i++) {
        const int pause_ms = (int)(random() % 30);
        SCOPED_TRACE(std::string(k_moments[i / 2]) + ", then " + std::to_string(pause_ms) + " ms");
        const size_t from = agent_output(stage.agent).size();
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_TRUE(agent_wait_log(&stage.agent, k_moments[i / 2]));
        usleep(i % 2 ? (useconds_t)pause_ms * 1000 : 0); // not a wait for something: the moment itself
        expect_stop(&stage, from);
    }
}

TEST(Faults, StopInTheMiddleOfALogSplit)
{
    Stage stage;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "max_size", "64");
    stage_write(stage);
    for (int i = 0; i < 3; i++) {
        const size_t from = agent_output(stage.agent).size();
        ASSERT_TRUE(agent_start(&stage.agent));
        ASSERT_TRUE(stage_wait_online(&stage));
        for (int n = 0; n < 40; n++) {
            ASSERT_TRUE(device_sim_send(stage.device, std::string(20000, 'x')));
        }
        EXPECT_TRUE(agent_wait_log(&stage.agent, i < 2 ? "split log file now" : "Close log file: "));
        expect_stop(&stage, from);
    }
}

// Whatever a frame says about itself, the link is in step again once what was buffered is gone.
TEST(Faults, HostileFrames)
{
    const std::string ping = "{\"type\":\"ping\"}", whole = device_frame_bytes((unsigned)ping.size(), ping);
    const unsigned area = 64 * 1024; // max_dev_msg_size
    const std::pair<const char *, std::string> rows[] = {
        {"4 GiB", device_frame_bytes(0xffffffff, ping)},
        {"2 GiB", device_frame_bytes(0x80000000, "{")},
        {"one byte too long", device_frame_bytes(area - 3, ping)},
        {"shorter than its text", device_frame_bytes(5, ping)},
        {"longer than its text", device_frame_bytes((unsigned)ping.size() + 10, ping)},
        {"NUL bytes", device_frame_bytes(10, std::string(10, '\0'))},
        {"nested too deep", device_frame_bytes(20000, std::string(20000, '['))},
        {"no object", device_frame_bytes(1, "1")},
        {"type of 600 characters", device_frame_bytes(612, "{\"type\": \"" + std::string(600, 't') + "\"}")},
    };
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    int pongs = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.first);
        ASSERT_TRUE(device_sim_send_raw(stage.device, row.second));
        for (int i = 0; i < 40 && device_sim_count(stage.device, "pong") < pongs + 2; i++) { // the first may go with it
            ASSERT_TRUE(device_sim_send_raw(stage.device, whole));
            (void)device_sim_wait_for(stage.device, "pong", pongs + 2, 300);
        }
        ASSERT_TRUE(device_sim_send(stage.device, sized("cfg-result", area - 4)));
        EXPECT_TRUE(nm_sim_wait_for(stage.nm, "cfgResult", (int)(&row - rows) + 1, k_wait_ms));
        pongs = device_sim_count(stage.device, "pong");
    }
    expect_clean_end(&stage);
}

// No memory for a large message: it is given up, the next one is not.
TEST(Faults, MemoryRefused)
{
    if (!proc_rss_counts()) {
        GTEST_SKIP() << "sanitizers and emulators end where memory is refused";
    }
    Stage stage;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "max_dev_msg_size", "4096");
    device_cfg_set(&stage.cfg, "dev_msg_buffer_size", "8192");
    stage_write(stage);
    ASSERT_TRUE(agent_start(&stage.agent));
    ASSERT_TRUE(stage_wait_online(&stage));
    const rlimit none = {1, RLIM_INFINITY}, all = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(
        prlimit(stage.agent.pid, RLIMIT_DATA, &none, nullptr) + prlimit(stage.agent.pid, RLIMIT_AS, &none, nullptr), 0);
    ASSERT_TRUE(device_sim_send(stage.device, sized("cfg-result", 1 << 20)));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "content_len: 1048576"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Error before JSON content: "));
    ASSERT_EQ(prlimit(stage.agent.pid, RLIMIT_DATA, &all, nullptr) + prlimit(stage.agent.pid, RLIMIT_AS, &all, nullptr),
              0);
    expect_works(&stage);
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
}
