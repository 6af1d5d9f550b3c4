// What the agent shows of itself: the state file, and the words and pings for a supervisor.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "harness.h"
#include "json_text.h"

// The value at a path such as "nm/port", as JSON text; "" when there is none.
static std::string value_of(const std::string &text, const std::string &path)
{
    const JsonTree root = json_parse(text);
    const cJSON *item = root.get();
    std::istringstream names(path);
    for (std::string name; std::getline(names, name, '/');)
        item = cJSON_GetObjectItem(item, name.c_str());
    return json_print_plain(item);
}

// Names and order of all members, with those of the first element of an array.
static std::string shape_of(const cJSON *item)
{
    std::string shape;
    for (const cJSON *child = item ? item->child : nullptr; child; child = cJSON_IsArray(item) ? nullptr : child->next)
        shape += std::string(child->string ? child->string : "") + "{" + shape_of(child) + "}";
    return shape;
}

static std::string state_of(const Stage &stage, const std::string &path)
{
    return value_of(file_text(stage.agent.dir + "/state"), path);
}

static bool state_becomes(const Stage &stage, const std::string &path, const std::string &value)
{
    return eventually([&] { return state_of(stage, path) == value; });
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
    std::string next(int timeout_ms = k_wait_ms) // "" after the time
    {
        char text[512];
        struct pollfd one = {fd, POLLIN, 0};
        const ssize_t len = poll(&one, 1, timeout_ms) == 1 ? recv(fd, text, sizeof(text), 0) : 0;
        return std::string(text, len > 0 ? (size_t)len : 0);
    }
    int fd;
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
    ASSERT_TRUE(state_becomes(stage, "state", "\"online\""));
    const std::string online = file_text(stage.agent.dir + "/state");
    EXPECT_EQ(shape_of(json_parse(file_text(STATE_SAMPLE)).get()), shape_of(json_parse(online).get()));
    const std::pair<const char *, std::string> rows[] = {
        {"version", "\"0.1\""},
        {"pid", std::to_string(stage.agent.pid)},
        {"stuck", "\"\""},
        {"dma/status", "\"online\""},
        {"failed_passes", "0"},
        {"next_pass_s", "null"},
        {"nm/port", "\"" + std::to_string(nm_sim_port(stage.nm)) + "\""},
        {"device/connected", "true"},
        {"device/port", "\"" + std::to_string(device_sim_port(stage.device)) + "\""},
        {"tunnels/web/open", "false"},
        {"posts/sent", "1"}, // the activation
        {"posts/failure_age_s", "null"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.second, value_of(online, row.first)) << row.first;
    struct stat st;
    EXPECT_EQ(0, stat((stage.agent.dir + "/state").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    std::string said = supervisor.next() + "\n", word; // of a slow machine the first status may be "online" already
    EXPECT_EQ("READY=1\nSTATUS=", said.substr(0, 15));

    EXPECT_TRUE(state_becomes(stage, "heartbeat/answer_age_s", "0"));
    nm_sim_absent(stage.nm);
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(state_becomes(stage, "heartbeat/misses", "1"));
    EXPECT_TRUE(state_becomes(stage, "posts/failed", "1"));
    EXPECT_NE("\"\"", state_of(stage, "posts/failure"));
    nm_sim_return(stage.nm);
    EXPECT_TRUE(state_becomes(stage, "state", "\"waiting\"")); // the restart that NM asks for
    EXPECT_NE("null", state_of(stage, "next_pass_s"));
    nm_sim_absent(stage.nm);
    EXPECT_TRUE(state_becomes(stage, "failed_passes", "1"));
    EXPECT_EQ("\"device_activation_failed\"", state_of(stage, "dma/status"));
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM));
    EXPECT_EQ("", file_text(stage.agent.dir + "/state") + file_text(stage.agent.dir + "/state.new"));

    while (!(word = supervisor.next(0)).empty())
        said += word + "\n";
    const std::string nm = "http://127.0.0.1:" + std::to_string(nm_sim_port(stage.nm));
    for (const std::string &line : {"STATUS=online with " + nm + "\n", std::string("WATCHDOG=1\n"),
                                    std::string("STATUS=waiting for the next bring-up pass\n")})
        EXPECT_TRUE(text_has(said, line)) << said;
    EXPECT_EQ("STOPPING=1\n", said.size() > 11 ? said.substr(said.size() - 11) : said);
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

// A thread hangs: the pings end, and who it is shows everywhere. Then it goes on, and so do they.
TEST(Monitor, StuckThreadEndsThePings)
{
    Stage stage;
    monitored(&stage);
    stage.agent.binary = WEDGE_BINARY;
    config_set(&stage.config, "monitor:stuck_s", "2");
    Supervisor supervisor(stage.agent.dir + "/supervisor");
    ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
    const auto hears = [&](const std::string &wanted) {
        std::string word;
        do {
            word = supervisor.next();
        } while (!word.empty() && word != wanted);
        return word == wanted;
    };
    EXPECT_TRUE(hears("WATCHDOG=1"));
    const std::string wedge = stage.agent.dir + "/wedge.dev_msg_handle";
    ASSERT_TRUE(device_write_file(wedge, "") && device_sim_send(stage.device, "{\"type\":\"ping\"}"));
    EXPECT_TRUE(hears("STATUS=stuck: thread dev_msg_handle"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Thread dev_msg_handle has been in one unit of work for more than 2 s!"));
    EXPECT_TRUE(state_becomes(stage, "stuck", "\"dev_msg_handle\""));
    EXPECT_EQ("", supervisor.next(11000));
    ASSERT_EQ(0, unlink(wedge.c_str()));
    EXPECT_TRUE(hears("WATCHDOG=1"));
    EXPECT_TRUE(device_sim_wait_for(stage.device, "pong", 1, k_wait_ms));
    EXPECT_EQ("", stage_end(&stage));
}
