// A signal in whatever state: the process ends within two seconds with the signal's number as its status.
#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <unistd.h>

#include "harness.h"

// The whole end: what was asked, every thread that began, the closing lines, the status.
static void expect_stop(Stage *stage, int signal_number = SIGTERM, size_t from = 0)
{
    const long long start = monotonic_ms();
    EXPECT_EQ(signal_number, agent_stop(&stage->agent, signal_number));
    EXPECT_LE((monotonic_ms() - start) % k_signal_again_ms, 2000); // since the signal that arrived
    const std::string output = agent_output(stage->agent).substr(from), number = std::to_string(signal_number);
    const size_t sig = output.find("SIG: " + number + " is received, ready to exit!");
    ASSERT_NE(std::string::npos, sig);
    const size_t quit = output.find("Function: sig_quit_handler calling for exit, ret: " + number, sig);
    ASSERT_NE(std::string::npos, quit);
    EXPECT_NE(std::string::npos, output.find("~~~~~~~~ Bye ~~~~~~~~", quit));
    EXPECT_EQ(text_count(output, " thread started."), text_count(output.substr(sig, quit - sig), " thread exited."));
    EXPECT_EQ(0, text_count(output.substr(quit), " thread exited."));
}

TEST(Stop, Idle)
{
    for (int signal_number : {SIGTERM, SIGINT, SIGQUIT}) {
        Stage stage;
        ASSERT_TRUE(stage_online(&stage, false));
        expect_stop(&stage, signal_number);
        EXPECT_TRUE(device_sim_wait_disconnected(stage.device, k_wait_ms));
        const std::string log = file_text(stage.agent.dir + "/log/0.log"); // the end of its connections included
        const size_t end = log.find("ready to exit!");
        EXPECT_TRUE(end != std::string::npos && text_has(log.substr(end), " removed,"));
    }
}

static std::vector<int> s_descriptors;

// Where the bring-up waits for what never comes.
static const struct {
    const char *name;
    bool https;
    const char *silent; // request that NM does not answer
    void (*prepare)(Stage *);
    bool (*waits)(Stage *);
} k_moments[] = {
    {"for the retry, without a device", false, "none", [](Stage *s) { device_sim_absent(s->device); },
     [](Stage *s) { return agent_wait_log(&s->agent, "Init config failed, re-initialize!"); }},
    {"for an answer", false, "active", nullptr,
     [](Stage *s) { return nm_sim_wait_for(s->nm, "active", 1, k_wait_ms); }},
    {"in a TLS handshake", true, "accept", nullptr,
     [](Stage *s) { return nm_sim_wait_connections(s->nm, 1, k_wait_ms); }},
    {"connecting into a black hole", false, "none",
     [](Stage *s) { device_cfg_set(&s->cfg, "port", std::to_string(black_hole_port(&s_descriptors))); },
     [](Stage *s) { // after the device
         return agent_wait_log(&s->agent, "TCP connecting") && agent_wait_log(&s->agent, "TCP connecting");
     }},
};

// A wait that a stop has cut short is no failure to tell.
TEST(Stop, Waiting)
{
    for (const auto &moment : k_moments) {
        SCOPED_TRACE(moment.name);
        Stage stage;
        stage_prepare(&stage, moment.https);
        nm_sim_set_fault(stage.nm, moment.silent, {NM_FAULT_SILENCE, 0, -1, ""});
        if (moment.prepare)
            moment.prepare(&stage);
        ASSERT_TRUE(stage_run(&stage) && moment.waits(&stage));
        expect_stop(&stage);
        EXPECT_FALSE(agent_has_log(stage.agent, "timeout!") || agent_has_log(stage.agent, "Connection timeout..."));
        EXPECT_EQ(0, device_sim_count(stage.device, ""));
    }
    for (int fd : s_descriptors)
        close(fd);
}

TEST(Stop, TwentyRandomMoments)
{
    static const char *const k_lines[] = {"Log dir",
                                          "open successfully",
                                          "thread started.",
                                          "Device initializing...",
                                          "Start timer",
                                          "TCP connecting",
                                          "has been added, socket",
                                          "SSL init success!",
                                          "Sending HTTP request over IP",
                                          "activate rsp"};
    Stage stage;
    stage_prepare(&stage, true);
    stage_write(stage);
    std::minstd_rand random((unsigned)monotonic_ms());
    for (int i = 0; i < 20; i++) {
        const int pause_ms = (int)(random() % 30);
        SCOPED_TRACE(std::string(k_lines[i / 2]) + ", then " + std::to_string(pause_ms) + " ms");
        const size_t from = agent_output(stage.agent).size();
        ASSERT_TRUE(agent_start(&stage.agent));
        EXPECT_TRUE(agent_wait_log(&stage.agent, k_lines[i / 2]));
        usleep(i % 2 ? (useconds_t)pause_ms * 1000 : 0); // not a wait for something: the moment itself
        expect_stop(&stage, SIGTERM, from);
    }
}

TEST(Stop, InTheMiddleOfALogSplit)
{
    Stage stage;
    stage_prepare(&stage, false);
    device_cfg_set(&stage.cfg, "max_size", "64");
    stage_write(stage);
    for (const char *line : {"split log file now", "Close log file: "}) {
        const size_t from = agent_output(stage.agent).size();
        ASSERT_TRUE(agent_start(&stage.agent) && stage_wait_online(&stage));
        for (int n = 0; n < 40; n++)
            ASSERT_TRUE(device_sim_send(stage.device, std::string(20000, 'x')));
        EXPECT_TRUE(agent_wait_log(&stage.agent, line));
        expect_stop(&stage, SIGTERM, from);
    }
}
