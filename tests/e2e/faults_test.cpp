// Faults around the agent: what fails heals, what is hostile is told in a line, a stop comes at any moment.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
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

static const NmFault k_silence = {NM_FAULT_SILENCE, 0, -1, ""}, k_silent_once = {NM_FAULT_SILENCE, 0, 1, ""},
                     k_half = {NM_FAULT_HALF, 0, -1, ""},
                     k_huge = {NM_FAULT_BODY, 0, -1, "{\"x\":\"" + std::string(1 << 20, 'x') + "\"}"},
                     k_deep = {NM_FAULT_BODY, 0, -1, "{\"x\":" + std::string(1500, '[') + "}"};

struct Outage {
    const char *name;
    Moment moment;          // of the fault's begin
    const char *line;       // by which the agent tells it; then NM's faults end
    void (*begin)(Stage *); // what happens; may be null
    void (*end)(Stage *);   // what ends; may be null. Then it must be online again and work
    bool https = false;
    const char *request = ""; // whose answers by NM are at fault
    NmFault fault = {};
};

// The log file takes lines (again).
static void expect_log_grows(Stage *stage, const std::string &name, size_t size)
{
    const std::string path = stage->agent.dir + "/log/" + name;
    for (int i = 1; i < 100 && file_text(path).size() <= size; i++) {
        ASSERT_TRUE(device_sim_send(stage->device, "{\"type\":\"ping\"}"));
        ASSERT_TRUE(device_sim_wait_for(stage->device, "pong", i, k_wait_ms));
    }
    EXPECT_GT(file_text(path).size(), size);
}

// A disk of the log directory's own with room for 4 KiB of log; where that is not permitted, one without any.
static void fill_disk(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log";
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0);
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("none", dir.c_str(), "tmpfs", 0, "size=64k") == 0) {
        EXPECT_TRUE(device_write_file(dir + "/rest", std::string(60 << 10, 'x')));
        return;
    }
    EXPECT_EQ(symlink("/dev/full", (dir + "/0.log").c_str()), 0);
    EXPECT_EQ(symlink("/dev/full", (dir + "/1.log").c_str()), 0);
}

static void free_disk(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log", rest = dir + "/rest";
    if (access(rest.c_str(), F_OK) == 0) {
        EXPECT_EQ(file_text(dir + "/0.log").size(), 4u << 10); // it is full
        EXPECT_EQ(unlink(rest.c_str()), 0);
        expect_log_grows(stage, "0.log", 4 << 10);
        EXPECT_EQ(umount2(dir.c_str(), MNT_DETACH), 0);
    }
}

static void nm_without_tls(Stage *stage)
{
    EXPECT_TRUE(nm_sim_wait_connections(stage->nm, 1, k_wait_ms));
    nm_sim_drop_connections(stage->nm);
}

static void link_flaps(Stage *stage)
{
    for (int i = 1; i <= 2; i++) { // each time as soon as it stands
        EXPECT_TRUE(device_sim_wait_connected(stage->device, i, k_wait_ms));
        device_sim_drop(stage->device);
    }
}

// It is back, and its file is full: the next one is opened. An empty directory would wait for the next start.
static void bring_log_back(Stage *stage)
{
    EXPECT_EQ(mkdir((stage->agent.dir + "/log").c_str(), 0755), 0);
    EXPECT_TRUE(device_write_file(stage->agent.dir + "/log/0.log", std::string(1 << 20, 'x')));
    expect_log_grows(stage, "1.log", 0);
}

static void write_half_a_cfg(Stage *stage)
{
    device_cfg_set_text(&stage->cfg, "pversion", "2.5.0");
    const std::string text = device_cfg_text(stage->cfg);
    EXPECT_TRUE(device_write_file(stage->agent.dir + "/init", text.substr(0, text.size() / 2)));
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
}

static void write_whole_cfg(Stage *stage)
{
    stage_write(*stage);
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
    EXPECT_TRUE(nm_sim_wait_for(stage->nm, "active", 2, k_wait_ms));
}

static const Outage k_outages[] = {
    {"NM absent", BEFORE, "Acting device failed! Retry...", [](Stage *s) { nm_sim_absent(s->nm); },
     [](Stage *s) { EXPECT_TRUE(nm_sim_return(s->nm)); }},
    {"NM silent", BEFORE, "select timeout!", nullptr, nullptr, true, "active", k_silence},
    {"no TLS", BEFORE, "has been added", nullptr, nm_without_tls, true, "accept", k_silent_once},
    {"huge answer", BEFORE, "p_json_end is NULL!", nullptr, nullptr, false, "active", k_huge},
    {"deep answer", BEFORE, "Error before JSON content: [[[", nullptr, nullptr, false, "active", k_deep},
    {"half an answer", BEFORE, "Device active failed!", nullptr, nullptr, false, "active", k_half},
    {"detection server without address", BEFORE, "gethostbyname() failed: nm.invalid",
     [](Stage *s) {
         nm_sim_set_activation(s->nm, {200, "", "", 0, "nm.invalid", -2});
     },
     [](Stage *s) { nm_sim_set_activation(s->nm, {}); }},
    {"nobody on the detection port", BEFORE, "Post HTTP nm message over IP",
     [](Stage *s) {
         nm_sim_set_activation(s->nm, {200, "", "", 0, "", 1});
     },
     nullptr},
    {"device link flaps", STARTED, "Device TCP connection lost! Re-initialize device...", link_flaps,
     [](Stage *s) { EXPECT_TRUE(device_sim_wait_connected(s->device, 3, k_wait_ms)); }},
    {"disk full", BEFORE, "Init cfg successfully", fill_disk, free_disk},
    {"log directory removed", ONLINE, "Fail to read log file property!",
     [](Stage *s) { EXPECT_EQ(std::filesystem::remove_all(s->agent.dir + "/log"), 2u); }, bring_log_back},
    {"init cfg half written", ONLINE, "Error before JSON content: ", write_half_a_cfg, write_whole_cfg},
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

// Whichever doorbell finds no descriptor, the process ends, and the console says so once.
TEST(Faults, StartWithoutDescriptors)
{
    if (!proc_rss_counts()) {
        GTEST_SKIP() << "sanitizers and emulators want descriptors of their own";
    }
    Stage stage;
    stage_prepare(&stage, false);
    stage_write(stage);
    for (int limit = 3; limit < 8; limit++) { // standard descriptors and as many of the five doorbells
        SCOPED_TRACE(limit);
        const size_t from = agent_output(stage.agent).size();
        stage.agent.descriptors_max = limit;
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_EQ(agent_wait_exit(&stage.agent), 255);
        const std::string output = agent_output(stage.agent).substr(from);
        EXPECT_EQ(occurrences(output, "[ERR]"), 1) << output;
        EXPECT_EQ(occurrences(output, "Create doorbell failed: Too many open files!"), 1) << output;
    }
}

// A message of size bytes: head, part again and again, tail and blanks.
static std::string filled(const std::string &head, const std::string &part, const std::string &tail, size_t size)
{
    std::string text = head;
    while (text.size() + part.size() + 1 + tail.size() <= size) {
        text += part + ",";
    }
    text.back() = tail[0];
    text += tail.substr(1);
    return text + std::string(size - text.size(), ' ');
}

struct LargeMessage {
    const char *name, *path; // of the post
    std::string text;
    bool https = false;
};

static void run_large_messages(const LargeMessage &row)
{
    SCOPED_TRACE(row.name);
    Stage stage;
    stage_prepare(&stage, row.https);
    device_cfg_set(&stage.cfg, "max_dev_msg_size", "1024");
    device_cfg_set(&stage.cfg, "dev_msg_buffer_size", "4096");
    EXPECT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    const int before_kib = proc_private_kib(stage.agent.pid), repeats = 4;
    int first_kib = 0, last_kib = 0;
    for (int i = 1; i <= repeats; i++) {
        EXPECT_TRUE(device_sim_send(stage.device, row.text));
        EXPECT_TRUE(nm_sim_wait_for(stage.nm, row.path, i, k_wait_ms));
        EXPECT_TRUE(device_sim_send(stage.device, "{\"type\":\"ping\"}")); // answered once the message is done with
        EXPECT_TRUE(device_sim_wait_for(stage.device, "pong", i, k_wait_ms));
        last_kib = proc_private_kib(stage.agent.pid);
        first_kib = i == 1 ? last_kib : first_kib;
    }
    EXPECT_GT(before_kib, 0);
    EXPECT_LE(first_kib, before_kib + 3072);
    EXPECT_LE(last_kib, first_kib + 256);
    EXPECT_EQ(stage_end(&stage), "");
}

// A box of 64 MiB has to live with what a large message leaves behind: the two buffers that it went through.
TEST(Faults, LargeMessagesLeaveNoMemoryBehind)
{
    if (!proc_rss_counts()) {
        GTEST_SKIP() << "the memory is not the agent's own";
    }
    const size_t size = (1 << 20) - 4, half = size / 2; // an array grows by half when it is printed
    const std::string alarm = "{\"type\":\"alarm-info\",\"payload\":[",
                      history = "{\"type\":\"call-history\",\"payload\":[";
    const LargeMessage rows[] = {
        {"one text", "upgradeResult", sized("upgrade-result", size)},
        {"objects", "cfgResult", filled("{\"type\":\"cfg-result\",\"x\":[", "{\"a\":{}}", "]}", size), true},
        {"alarm of digits", "alarm", filled(alarm, "1", "]}", half)},
        {"history of digits", "callhistory", filled(history, "1", "]}", size)},
    };
    std::vector<std::thread> runs; // the device link brings a MiB in five seconds
    for (const LargeMessage &row : rows) {
        runs.emplace_back(run_large_messages, std::cref(row));
    }
    for (std::thread &run : runs) {
        run.join();
    }
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
    const int pid = stage.agent.pid;
    ASSERT_EQ(prlimit(pid, RLIMIT_DATA, &none, nullptr) | prlimit(pid, RLIMIT_AS, &none, nullptr), 0);
    ASSERT_TRUE(device_sim_send(stage.device, sized("cfg-result", 1 << 20)));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "content_len: 1048576"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Error before JSON content: "));
    ASSERT_EQ(prlimit(pid, RLIMIT_DATA, &all, nullptr) | prlimit(pid, RLIMIT_AS, &all, nullptr), 0);
    expect_works(&stage);
    EXPECT_EQ(agent_stop(&stage.agent, SIGTERM), SIGTERM);
}
