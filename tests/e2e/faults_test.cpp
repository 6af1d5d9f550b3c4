// Faults around the agent: what fails heals, what is hostile or too much is told in a line.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
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
    EXPECT_TRUE(text_has(device_sim_frame(stage->device, "cfg-ack", -1).text, "\"result\":true"));
}

enum Moment { BEFORE, STARTED, ONLINE };

struct Outage {
    const char *name;
    Moment moment;          // of the fault's begin
    const char *line;       // by which the agent tells it; then NM's faults end
    void (*begin)(Stage *); // what happens; may be null
    void (*end)(Stage *);   // what ends; may be null. Then it must be online again and work
    NmFault fault = {};     // of NM's answers to "active", over TLS
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

// Where it is permitted: a disk of the log directory's own with room for 4 KiB of log.
static void fill_disk(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log";
    EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("none", dir.c_str(), "tmpfs", 0, "size=64k") == 0)
        device_write_file(dir + "/rest", std::string(60 << 10, 'x'));
}

static void free_disk(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log";
    if (unlink((dir + "/rest").c_str()) == 0) {
        EXPECT_EQ(4u << 10, file_text(dir + "/0.log").size()); // it is full
        expect_log_grows(stage, "0.log", 4 << 10);
        EXPECT_EQ(0, umount2(dir.c_str(), MNT_DETACH));
    }
}

static void refused_is_told(Stage *stage)
{
    EXPECT_TRUE(device_sim_wait_for(stage->device, "online-status-notify", 1, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage->device, "online-status-notify", 0).text,
                         "\"result\":\"device_activation_failed\",\t\"cause\":\"unknown device\""));
    nm_sim_set_activation(stage->nm, {}); // the next pass comes 10 s later
    EXPECT_TRUE(device_sim_wait_for(stage->device, "online-status-notify", 2, k_wait_ms));
    EXPECT_TRUE(text_has(device_sim_frame(stage->device, "online-status-notify", 1).text, "online\",\t\"cause\":\"\""));
}

static void link_flaps(Stage *stage)
{
    for (int i = 1; i <= 2; i++) { // each time as soon as it stands
        EXPECT_TRUE(device_sim_wait_connected(stage->device, i, k_wait_ms));
        device_sim_drop(stage->device);
    }
}

static void device_returns(Stage *stage, int links)
{
    EXPECT_TRUE(device_sim_return(stage->device));
    EXPECT_TRUE(device_sim_wait_connected(stage->device, links, k_wait_ms));
}

// It is back, and its file is full: the next one is opened. An empty directory would wait for the next start.
static void bring_log_back(Stage *stage)
{
    EXPECT_EQ(0, mkdir((stage->agent.dir + "/log").c_str(), 0755));
    EXPECT_TRUE(device_write_file(stage->agent.dir + "/log/0.log", std::string(1 << 20, 'x')));
    expect_log_grows(stage, "1.log", 0);
}

static void write_half_a_cfg(Stage *stage)
{
    const std::string text = device_cfg_text(stage->cfg);
    EXPECT_TRUE(device_write_file(stage->agent.dir + "/init", text.substr(0, text.size() / 2)));
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
}

// A changed identity starts the bring-up again; other changes are taken over without that.
static void write_whole_cfgs(Stage *stage)
{
    device_cfg_set(&stage->cfg, "max_size", "512");
    stage_write(*stage);
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "max_log_file_size: 524288"));
    const int passes = nm_sim_count(stage->nm, "active");
    device_cfg_set_text(&stage->cfg, "pversion", "2.5.0");
    stage_write(*stage);
    EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
    EXPECT_TRUE(nm_sim_wait_for(stage->nm, "active", passes + 1, k_wait_ms));
    EXPECT_TRUE(text_has(nm_sim_request(stage->nm, "active", -1).body, "\"pversion\":\"2.5.0\""));
}

static const Outage k_outages[] = {
    {"NM absent", BEFORE, "Acting device failed! Retry...", [](Stage *s) { nm_sim_absent(s->nm); },
     [](Stage *s) { EXPECT_TRUE(nm_sim_return(s->nm)); }},
    {"NM silent", BEFORE, "select timeout!", nullptr, nullptr, {NM_FAULT_SILENCE, 0, -1, ""}},
    {"NM refuses", BEFORE, "Device active failed!",
     [](Stage *s) {
         nm_sim_set_activation(s->nm, {403, "unknown device", "", 0, ""});
     },
     refused_is_told},
    {"huge answer",
     BEFORE,
     "p_json_end is NULL!",
     nullptr,
     nullptr,
     {NM_FAULT_BODY, 0, -1, "{\"x\":\"" + std::string(1 << 20, 'x') + "\"}"}},
    {"deep answer",
     BEFORE,
     "Error before JSON content: [[[",
     nullptr,
     nullptr,
     {NM_FAULT_BODY, 0, -1, "{\"x\":" + std::string(1500, '[') + "}"}},
    {"half an answer", BEFORE, "Device active failed!", nullptr, nullptr, {NM_FAULT_HALF, 0, -1, ""}},
    {"nobody on the detection port", BEFORE, "Post HTTP nm message over IP",
     [](Stage *s) {
         nm_sim_set_activation(s->nm, {200, "", "", 0, "", 1});
     },
     nullptr},
    {"device's agent late", BEFORE, "Init config failed, re-initialize!",
     [](Stage *s) { device_sim_absent(s->device); }, [](Stage *s) { device_returns(s, 1); }},
    {"device link flaps", STARTED, "Device TCP connection lost! Re-initialize device...", link_flaps,
     [](Stage *s) { EXPECT_TRUE(device_sim_wait_connected(s->device, 3, k_wait_ms)); }},
    {"device's agent restarts", ONLINE, "Device TCP connection lost! Re-initialize device...",
     [](Stage *s) { device_sim_absent(s->device); }, [](Stage *s) { device_returns(s, 2); }},
    {"disk full", BEFORE, "Init cfg successfully", fill_disk, free_disk},
    {"log directory removed", ONLINE, "Fail to read log file property!",
     [](Stage *s) { EXPECT_EQ(2u, std::filesystem::remove_all(s->agent.dir + "/log")); }, bring_log_back},
    {"init cfg half written", ONLINE, "Error before JSON content: ", write_half_a_cfg, write_whole_cfgs},
};

static void run_outage(const Outage &row)
{
    SCOPED_TRACE(row.name);
    Stage stage;
    const auto at = [&](Moment moment) { return row.moment == moment && row.begin ? row.begin(&stage) : void(); };
    stage_prepare(&stage, row.fault.kind != NM_FAULT_NONE);
    stage_write(stage);
    nm_sim_set_fault(stage.nm, "active", row.fault);
    at(BEFORE);
    EXPECT_TRUE(agent_start(&stage.agent));
    at(STARTED);
    EXPECT_TRUE(row.moment != ONLINE || stage_wait_online(&stage));
    at(ONLINE);
    EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
    nm_sim_clear_faults(stage.nm);
    if (row.end)
        row.end(&stage);
    expect_works(&stage);
    EXPECT_EQ("", stage_end(&stage));
}

// The rows spend their time waiting: they run side by side.
template <class Row, size_t N> static void run_all(void (*run)(const Row &), const Row (&rows)[N])
{
    std::vector<std::thread> threads;
    for (const Row &row : rows)
        threads.emplace_back(run, std::cref(row));
    for (std::thread &thread : threads)
        thread.join();
}

TEST(Faults, OutagesHeal)
{
    run_all(run_outage, k_outages);
}

// How the process goes on, or with which status it ends.
TEST(Faults, HostileInitCfgs)
{
    Stage stage;
    stage_prepare(&stage, false);
    stage_write(stage);
    const std::string good = device_cfg_text(stage.cfg);
    device_cfg_set(&stage.cfg, "log_path", "\"/proc/none/\"");
    const struct {
        const char *name;
        std::string text;
        const char *line;
        int status = SIGTERM; // of the end by SIGTERM, or by itself
    } rows[] = {
        {"binary", "\x7f\xff\x80\x01{\"\xc3", "Parsing init cfg failed!"},
        {"empty", "", "Reading init cfg failed! File path: ", 0},
        {"nested too deep", std::string(9000, '['), "Parsing init cfg failed!"},
        {"no room for logs", device_cfg_text(stage.cfg), "Create log dir failed!", 255},
        {"10,240 bytes", good + std::string(10240 - good.size(), ' '), "Init cfg successfully"},
        {"more than 10,240 bytes", "{\"x\":\"" + std::string(10240, 'x') + "\"}", "Parsing init cfg failed!"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(device_write_file(stage.agent.dir + "/init", row.text));
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_TRUE(agent_wait_log(&stage.agent, row.line)) << row.line;
        EXPECT_EQ(row.status, row.status ? agent_stop(&stage.agent, SIGTERM) : agent_wait_exit(&stage.agent));
    }
}

// Each arrives once, in the order in which NM gave them out: one a second.
TEST(Faults, CommandsInARow)
{
    const int count = 60;
    Stage stage;
    ASSERT_TRUE(stage_online(&stage, false));
    for (int i = -1; i < count; i++)
        nm_sim_queue(stage.nm, i < 0 ? nm_command_trigger(1) : nm_command_forward("ping", std::to_string(i)));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "ping", count, 2000 * count));
    EXPECT_EQ(count + 1, nm_sim_count(stage.nm, "handshake"));
    for (int i = 0; i < count; i++)
        EXPECT_TRUE(text_has(device_sim_frame(stage.device, "ping", i).text, "id\":\"" + std::to_string(i) + "\""));
    EXPECT_EQ("", stage_end(&stage));
    EXPECT_EQ(count, device_sim_count(stage.device, "ping"));
}

// Whichever doorbell finds no descriptor, the process ends, and the console says so once.
TEST(Faults, StartWithoutDescriptors)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "sanitizers and emulators want descriptors of their own";
    Stage stage;
    stage_prepare(&stage, false);
    stage_write(stage);
    for (int limit = 3; limit < 8; limit++) { // standard descriptors and as many of the five doorbells
        SCOPED_TRACE(limit);
        const size_t from = agent_output(stage.agent).size();
        stage.agent.descriptors_max = limit;
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_EQ(255, agent_wait_exit(&stage.agent));
        const std::string output = agent_output(stage.agent).substr(from);
        EXPECT_EQ(1, text_count(output, "[ERR]")) << output;
        EXPECT_EQ(1, text_count(output, "Create doorbell failed: Too many open files!")) << output;
    }
}

struct LargeMessage {
    const char *type, *path; // of the post
    const char *member, *part;
    size_t size;
    bool https;
};

// A message of size bytes, whose member is an array of the part again and again.
static std::string large_text(const LargeMessage &row)
{
    std::string text = std::string("{\"type\":\"") + row.type + "\",\"" + row.member + "\":[" + row.part;
    while (text.size() + strlen(row.part) + 3 <= row.size)
        text += std::string(",") + row.part;
    return text + "]}";
}

static void run_large_messages(const LargeMessage &row)
{
    SCOPED_TRACE(row.type);
    Stage stage;
    stage_prepare(&stage, row.https);
    device_cfg_set(&stage.cfg, "max_dev_msg_size", "1024");
    device_cfg_set(&stage.cfg, "dev_msg_buffer_size", "4096");
    EXPECT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    std::vector<int> kib = {proc_private_kib(stage.agent.pid)};
    for (int i = 1; i <= 4; i++) {
        EXPECT_TRUE(device_sim_send(stage.device, large_text(row)));
        EXPECT_TRUE(nm_sim_wait_for(stage.nm, row.path, i, k_wait_ms));
        EXPECT_TRUE(device_sim_send(stage.device, "{\"type\":\"ping\"}")); // answered once the message is done with
        EXPECT_TRUE(device_sim_wait_for(stage.device, "pong", i, k_wait_ms));
        kib.push_back(proc_private_kib(stage.agent.pid));
    }
    EXPECT_GT(kib[0], 0);
    EXPECT_LE(kib[1], kib[0] + 3072);
    EXPECT_LE(kib[4], kib[1] + 256);
    EXPECT_EQ("", stage_end(&stage));
}

// A box of 64 MiB has to live with what a large message leaves behind: the two buffers that it went through.
TEST(Faults, LargeMessagesLeaveNoMemoryBehind)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "the memory is not the agent's own";
    const size_t size = (1 << 20) - 4;
    static const std::string text = "\"" + std::string(size - 50, 'x') + "\"";
    const LargeMessage rows[] = {
        {"upgrade-result", "upgradeResult", "x", text.c_str(), size, false},
        {"cfg-result", "cfgResult", "x", "{\"a\":{}}", size, true},
        {"alarm-info", "alarm", "payload", "1", size / 2, false}, // an array grows by half when it is printed
        {"call-history", "callhistory", "payload", "1", size, false},
    };
    run_all(run_large_messages, rows); // the device link brings a MiB in five seconds
}

// No memory for a large message: it is given up, the next one is not.
TEST(Faults, MemoryRefused)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "sanitizers and emulators end where memory is refused";
    Stage stage;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "max_dev_msg_size", "4096");
    device_cfg_set(&stage.cfg, "dev_msg_buffer_size", "8192");
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    const rlimit none = {1, RLIM_INFINITY}, all = {RLIM_INFINITY, RLIM_INFINITY};
    const int pid = stage.agent.pid;
    ASSERT_EQ(0, prlimit(pid, RLIMIT_DATA, &none, nullptr) | prlimit(pid, RLIMIT_AS, &none, nullptr));
    ASSERT_TRUE(device_sim_send(stage.device, large_text({"cfg-result", "", "x", "1", 1 << 20, false})));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "content_len: 10485"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Error before JSON content: "));
    ASSERT_EQ(0, prlimit(pid, RLIMIT_DATA, &all, nullptr) | prlimit(pid, RLIMIT_AS, &all, nullptr));
    expect_works(&stage);
    EXPECT_EQ("", stage_end(&stage));
}
