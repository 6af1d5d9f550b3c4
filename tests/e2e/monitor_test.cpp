// What the agent shows of itself: the state file, and the words and pings for a supervisor.
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "harness.h"
#include "json_text.h"

// Names and order of all members, with those of the first element of an array.
static std::string shape_of(const cJSON *item)
{
    std::string shape;
    for (const cJSON *child = item ? item->child : nullptr; child; child = cJSON_IsArray(item) ? nullptr : child->next)
        shape += std::string(child->string ? child->string : "") + "{" + shape_of(child) + "}";
    return shape;
}

// The file in one line.
static std::string state_of(const Stage &stage)
{
    return json_print_plain(json_parse(file_text(stage.agent.dir + "/state")).get());
}

static bool state_gets(const Stage &stage, const std::string &part)
{
    return eventually([&] { return text_has(state_of(stage), part); });
}

// A supervisor's end of the socket.
struct Supervisor {
    explicit Supervisor(const std::string &path) : fd(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, bind(fd, (const struct sockaddr *)&address, sizeof(address)));
    }
    ~Supervisor()
    {
        close(fd);
    }
    std::string next(int timeout_ms) // "" after the time
    {
        char text[512];
        struct pollfd one = {fd, POLLIN, 0};
        const ssize_t len = poll(&one, 1, timeout_ms) == 1 ? recv(fd, text, sizeof(text), 0) : 0;
        return std::string(text, len > 0 ? (size_t)len : 0);
    }
    // Waits until the supervisor hears the text; takes it and what came before. A message ends with a line end here.
    bool hears(const std::string &text)
    {
        const bool is_heard = eventually([&] {
            const std::string message = next(0);
            said += message.empty() ? "" : message + "\n";
            return text_has(said, text);
        });
        said.erase(0, is_heard ? said.find(text) + text.size() : 0);
        return is_heard;
    }
    int fd;
    std::string said = "first: ";
};

static void monitored(Stage *stage)
{
    stage_prepare(stage, false);
    config_set(&stage->config, "monitor:state_file", "state");
    config_set(&stage->config, "monitor:notify_socket", stage->agent.dir + "/supervisor");
}

TEST(Monitor, StateFollowsTheAgent)
{
    Stage stage;
    monitored(&stage);
    Supervisor supervisor(stage.agent.dir + "/supervisor");
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    ASSERT_TRUE(state_gets(stage, R"("state":"online")"));
    const std::string path = stage.agent.dir + "/state", online = state_of(stage);
    const auto port = [](int number) { return R"("host":"127.0.0.1","port":")" + std::to_string(number) + '"'; };
    for (const std::string &part :
         {R"({"version":"0.1","pid":)" + std::to_string(stage.agent.pid) + ",",
          R"("state":"online","stuck":"","dma":{"status":"online","cause":""},"failed_passes":0,"next_pass_s":null,)"
          R"("nm":{"method":"http",)" +
              port(nm_sim_port(stage.nm)),
          R"("device":{"connected":true,)" + port(device_sim_port(stage.device)),
          std::string(R"("tunnels":{"web":{"open":false,)"),
          std::string(R"("posts":{"sent":1,"failed":0,"failure_age_s":null,)")}) // the activation
        EXPECT_TRUE(text_has(online, part)) << part << " in " << online;
    EXPECT_EQ(shape_of(json_parse(file_text(STATE_SAMPLE)).get()), shape_of(json_parse(online).get()));
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(path).permissions());
    const std::string nm = "http://127.0.0.1:" + std::to_string(nm_sim_port(stage.nm));
    EXPECT_TRUE(supervisor.hears("first: READY=1\nSTATUS="));
    EXPECT_TRUE(supervisor.hears("online with " + nm + "\n")); // of a slow machine the first status may be this already

    EXPECT_TRUE(state_gets(stage, R"("answer_age_s":0,)"));
    nm_sim_absent(stage.nm);
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(state_gets(stage, R"("misses":1})"));
    EXPECT_TRUE(state_gets(stage, R"("failed":1,)"));
    EXPECT_FALSE(text_has(state_of(stage), R"("failure":"")"));
    nm_sim_return(stage.nm);
    EXPECT_TRUE(state_gets(stage, R"("state":"waiting")")); // the restart that NM asks for
    EXPECT_FALSE(text_has(state_of(stage), R"("next_pass_s":null)"));
    nm_sim_absent(stage.nm);
    EXPECT_TRUE(state_gets(stage, R"("dma":{"status":"device_activation_failed",)"));
    EXPECT_TRUE(state_gets(stage, R"("failed_passes":1,)"));
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM));
    EXPECT_EQ("", file_text(path) + file_text(path + ".new"));
    for (const char *line : {"WATCHDOG=1\n", "STATUS=waiting for the next bring-up pass\n", "STOPPING=1\n"})
        EXPECT_TRUE(supervisor.hears(line)) << line;
    EXPECT_EQ("", supervisor.said + supervisor.next(0));
}

// No directory for the file, nobody at the socket: one line each.
TEST(Monitor, TroubleIsSaidOnce)
{
    Stage stage;
    monitored(&stage);
    config_set(&stage.config, "monitor:state_file", "none/state");
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "udp", 1, k_wait_ms)); // turns of the monitor have passed
    EXPECT_EQ(1, text_count(agent_output(stage.agent), "Write state file failed! Path: none/state, err: No such file"));
    EXPECT_EQ(1, text_count(agent_output(stage.agent), "Notify the supervisor failed!"));
    EXPECT_EQ("", stage_end(&stage));
}

// A thread hangs: the pings end, and who it is shows everywhere. Then it goes on, and so do they. When it hangs for
// good a stop takes 30 s.
TEST(Monitor, StuckThreadEndsThePings)
{
    Stage stage;
    monitored(&stage);
    stage.agent.binary = WEDGE_BINARY;
    config_set(&stage.config, "monitor:stuck_s", "2");
    Supervisor supervisor(stage.agent.dir + "/supervisor");
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    EXPECT_TRUE(supervisor.hears("WATCHDOG=1\n"));
    const std::string wedge = stage.agent.dir + "/wedge.dev_msg_handle";
    const auto hang = [&] {
        EXPECT_TRUE(device_write_file(wedge, "") && device_sim_send(stage.device, "{\"type\":\"ping\"}"));
        EXPECT_TRUE(supervisor.hears("STATUS=stuck: thread dev_msg_handle\n"));
    };
    hang();
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Thread dev_msg_handle has been in one unit of work for more than 2 s!"));
    EXPECT_TRUE(state_gets(stage, R"("stuck":"dev_msg_handle")"));
    EXPECT_EQ("", supervisor.next(11000));
    ASSERT_EQ(0, unlink(wedge.c_str()));
    EXPECT_TRUE(supervisor.hears("WATCHDOG=1\n"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "pong", 1, k_wait_ms));
    hang();
    const long long asked_ms = monotonic_ms();
    EXPECT_EQ("", stage_end(&stage));
    EXPECT_NEAR(30000, monotonic_ms() - asked_ms, 1500);
}
