// Faults around the agent: what fails heals, what is hostile or too much is told in a line.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "harness.h"

// A command to the device and a result to NM: the agent does its work.
static void expect_works(Stage *stage)
{
    const int pings = device_sim_count(stage->device, "ping");
    nm_sim_queue(stage->nm, nm_command_forward("ping", ""));
    EXPECT_TRUE(device_sim_wait_for(stage->device, "ping", pings + 1, k_wait_ms));
    EXPECT_EQ("true", stage_result(stage));
}

// The device's agent drops the link as soon as it stands; when all is well it restarts, and misses a bring-up pass.
static void device_comes_and_goes(Stage *stage)
{
    EXPECT_TRUE(stage_run(stage) && device_sim_wait_connected(stage->device, 1, k_wait_ms));
    device_sim_drop(stage->device);
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Device TCP connection lost! Re-initialize device..."));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Init cfg successfully"));
    device_sim_absent(stage->device);
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Device TCP connection lost! Re-initialize device..."));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Init config failed, re-initialize!"));
    EXPECT_TRUE(device_sim_return(stage->device) && device_sim_wait_connected(stage->device, 3, k_wait_ms));
}

// The log file takes lines (again).
static void expect_log_grows(Stage *stage, const std::string &path, size_t size)
{
    for (int i = 1; i < 100 && file_text(path).size() <= size; i++)
        ASSERT_TRUE(stage_ping(stage));
    EXPECT_GT(file_text(path).size(), size);
}

// Its disk is full, where a disk of its own with room for 4 KiB is permitted. Then the directory is away, and comes
// back with a full file: the next one is opened. An empty directory would wait for the next start.
static void log_loses_its_place(Stage *stage)
{
    const std::string dir = stage->agent.dir + "/log";
    EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("none", dir.c_str(), "tmpfs", 0, "size=64k") == 0)
        device_write_file(dir + "/rest", std::string(60 << 10, 'x'));
    EXPECT_TRUE(stage_run(stage) && stage_wait_online(stage));
    if (unlink((dir + "/rest").c_str()) == 0) {
        EXPECT_EQ(4u << 10, file_text(dir + "/0.log").size());
        expect_log_grows(stage, dir + "/0.log", 4 << 10);
        EXPECT_EQ(0, umount2(dir.c_str(), MNT_DETACH));
    }
    std::filesystem::remove_all(dir);
    EXPECT_TRUE(agent_wait_log(&stage->agent, "Fail to read log file property!"));
    EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
    EXPECT_TRUE(device_write_file(dir + "/0.log", std::string(1 << 20, 'x')));
    expect_log_grows(stage, dir + "/1.log", 0);
}

// The device says so when the init cfg is half written, and when all of it is: what changed is taken over, without a
// new bring-up.
static void init_cfg_half_written(Stage *stage)
{
    EXPECT_TRUE(stage_run(stage) && stage_wait_online(stage));
    device_cfg_set(&stage->cfg, "max_size", "512");
    const std::string text = device_cfg_text(stage->cfg);
    for (const size_t size : {text.size() / 2, text.size()}) {
        EXPECT_TRUE(device_write_file(stage->agent.dir + "/init", text.substr(0, size)));
        EXPECT_TRUE(device_sim_send(stage->device, "{\"type\":\"init-cfg-changed\"}"));
        EXPECT_TRUE(agent_wait_log(&stage->agent,
                                   size < text.size() ? "Error before JSON content: " : "max_log_file_size: 524288"));
    }
    expect_works(stage);
    EXPECT_EQ(1, nm_sim_count(stage->nm, "active"));
}

TEST(Faults, OutagesHeal)
{
    void (*const outages[])(Stage *) = {device_comes_and_goes, log_loses_its_place, init_cfg_half_written};
    side_by_side(std::size(outages), [&](size_t i) {
        Stage stage;
        stage_prepare(&stage, false);
        outages[i](&stage);
        expect_works(&stage);
        EXPECT_EQ("", stage_end(&stage));
    });
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

// Whichever doorbell finds no descriptor, the process ends, and the console says so once.
TEST(Faults, StartWithoutDescriptors)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "sanitizers and emulators want descriptors of their own";
    Stage stage;
    stage_prepare(&stage, false);
    stage_write(stage);
    for (int starts = 1; starts <= 5; starts++) { // room for the standard descriptors and 0 to 4 of the five doorbells
        SCOPED_TRACE(starts);
        stage.agent.descriptors_max = 2 + starts;
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_EQ(255, agent_wait_exit(&stage.agent));
        EXPECT_EQ(starts, text_count(agent_output(stage.agent), "[ERR]"));
        EXPECT_EQ(starts, text_count(agent_output(stage.agent), "Create doorbell failed: Too many open files!"));
    }
}

// A message of size bytes, whose member is an array of the part again and again.
static std::string large_text(const std::string &type, const char *member, const std::string &part, size_t size)
{
    std::string text = "{\"type\":\"" + type + "\",\"sessionid\":\"s\",\"" + member + "\":[" + part;
    while (text.size() + part.size() + 3 <= size)
        text += "," + part;
    return text + "]}";
}

// A box of 64 MiB has to live with what a large message leaves behind: the two buffers that it went through.
TEST(Faults, LargeMessagesLeaveNoMemoryBehind)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "the memory is not the agent's own";
    const size_t size = (1 << 20) - 4;
    const std::string text = "\"" + std::string(size - 80, 'x') + "\"";
    const struct {
        const char *post;
        std::string text;
        bool https = false;
    } rows[] = {
        {"upgradeResult", large_text("upgrade-result", "x", text, size)},
        {"cfgResult", large_text("cfg-result", "x", "{\"a\":{}}", size), true},
        {"alarm", large_text("alarm-info", "payload", "1", size / 2)}, // an array grows by half when it is printed
        {"callhistory", large_text("call-history", "payload", "1", size)},
    };
    side_by_side(std::size(rows), [&](size_t row) { // the device link brings a MiB in five seconds
        SCOPED_TRACE(rows[row].post);
        Stage stage;
        stage.cfg = {{"max_dev_msg_size", "1024"}, {"dev_msg_buffer_size", "4096"}};
        EXPECT_TRUE(stage_online(&stage, rows[row].https));
        std::vector<int> kib = {proc_private_kib(stage.agent.pid)};
        for (int i = 1; i <= 4; i++) {
            EXPECT_TRUE(device_sim_send(stage.device, rows[row].text));
            EXPECT_TRUE(nm_sim_wait_for(stage.nm, rows[row].post, i, k_wait_ms));
            EXPECT_TRUE(stage_ping(&stage)); // answered once the message is done with
            kib.push_back(proc_private_kib(stage.agent.pid));
        }
        EXPECT_GT(kib[0], 0);
        EXPECT_LE(kib[1], kib[0] + 3072);
        EXPECT_LE(kib[4], kib[1] + 256);
        EXPECT_EQ("", stage_end(&stage));
    });
}

// No memory for a large message: it is given up, the next one is not.
TEST(Faults, MemoryRefused)
{
    if (!proc_rss_counts())
        GTEST_SKIP() << "sanitizers and emulators end where memory is refused";
    Stage stage;
    stage.cfg = {{"max_dev_msg_size", "4096"}, {"dev_msg_buffer_size", "8192"}};
    ASSERT_TRUE(stage_online(&stage, false));
    const auto limit = [&](rlim_t most) {
        const rlimit limits = {most, RLIM_INFINITY};
        EXPECT_EQ(0, prlimit(stage.agent.pid, RLIMIT_DATA, &limits, nullptr));
        EXPECT_EQ(0, prlimit(stage.agent.pid, RLIMIT_AS, &limits, nullptr));
    };
    limit(1);
    ASSERT_TRUE(device_sim_send(stage.device, large_text("cfg-result", "x", "1", 1 << 20)));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "content_len: 10485"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Error before JSON content: "));
    limit(RLIM_INFINITY);
    expect_works(&stage);
    EXPECT_EQ("", stage_end(&stage));
}
