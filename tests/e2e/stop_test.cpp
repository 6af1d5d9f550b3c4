// A signal in whatever state: the process ends within two seconds with the signal's number as its status.
#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <unistd.h>

#include "harness.h"

// The whole end: what was asked, every thread that began, the closing lines, the status.
static void expect_stop(Stage *stage, int signal_number = SIGTERM)
{
    const long long start = monotonic_ms();
    EXPECT_EQ(signal_number, agent_stop(&stage->agent, signal_number));
    EXPECT_LE((monotonic_ms() - start) % k_signal_again_ms, 2000); // since the signal that arrived
    const std::string all = agent_output(stage->agent), number = std::to_string(signal_number);
    const std::string output = all.substr(all.rfind("Key: plugin_config:log_level is set to: ")); // the last start's
    const size_t sig = output.find("SIG: " + number + " is received, ready to exit!");
    const size_t quit = output.find("Function: sig_quit_handler calling for exit, ret: " + number, sig);
    ASSERT_NE(std::string::npos, output.find("~~~~~~~~ Bye ~~~~~~~~", quit)) << output; // which is behind the others
    EXPECT_EQ(text_count(output, " thread started."), text_count(output.substr(sig, quit - sig), " thread exited."));
    EXPECT_EQ(0, text_count(output.substr(quit), " thread exited."));
}

TEST(Stop, Idle)
{
    for (int signal_number : {SIGTERM, SIGINT, SIGQUIT}) {
        Stage stage;
        ASSERT_TRUE(stage_online(&stage, false));
        expect_stop(&stage, signal_number);
        const std::string log = file_text(stage.agent.dir + "/log/0.log"); // the end of its connections included
        EXPECT_TRUE(text_has(log.substr(log.find("ready to exit!")), " removed,"));
    }
}

// Where the bring-up waits for what never comes. A wait that a stop has cut short is no failure to tell.
TEST(Stop, Waiting)
{
    const struct {
        const char *name;
        bool https;
        void (*prepare)(Stage *);
        bool (*waits)(Stage *);
    } moments[] = {
        {"for the retry, without a device", false, [](Stage *s) { device_sim_absent(s->device); },
         [](Stage *s) { return agent_wait_log(&s->agent, "Init config failed, re-initialize!"); }},
        {"for an answer", false,
         [](Stage *s) {
             nm_sim_set_fault(s->nm, "active", {NM_FAULT_SILENCE, 0, -1, ""});
         },
         [](Stage *s) { return nm_sim_wait_for(s->nm, "active", 1, k_wait_ms); }},
        {"in a TLS handshake", true, stage_nm_silent,
         [](Stage *s) { return nm_sim_wait_connections(s->nm, 1, k_wait_ms); }},
        {"connecting into a black hole", false,
         [](Stage *s) { device_cfg_set(&s->cfg, "port", std::to_string(black_hole_port())); },
         [](Stage *s) { // after the device
             return agent_wait_log(&s->agent, "TCP connecting") && agent_wait_log(&s->agent, "TCP connecting");
         }},
    };
    for (const auto &moment : moments) {
        SCOPED_TRACE(moment.name);
        Stage stage;
        stage_prepare(&stage, moment.https);
        moment.prepare(&stage);
        ASSERT_TRUE(stage_run(&stage) && moment.waits(&stage));
        expect_stop(&stage);
        EXPECT_FALSE(agent_has_log(stage.agent, "timeout!") || agent_has_log(stage.agent, "Connection timeout..."));
        EXPECT_EQ(0, device_sim_count(stage.device, ""));
    }
}

TEST(Stop, TwentyRandomMoments)
{
    Stage stage;
    stage_prepare(&stage, true);
    stage_write(stage);
    std::minstd_rand random((unsigned)monotonic_ms());
    for (const char *line :
         {"Log dir", "open successfully", "thread started.", "Device initializing...", "Start timer", "TCP connecting",
          "has been added, socket", "SSL init success!", "Sending HTTP request over IP", "activate rsp"}) {
        for (const unsigned pause_ms : {0u, (unsigned)random() % 30}) {
            SCOPED_TRACE(line + (", then " + std::to_string(pause_ms)) + " ms");
            ASSERT_TRUE(agent_start(&stage.agent));
            EXPECT_TRUE(agent_wait_log(&stage.agent, line));
            usleep(pause_ms * 1000); // not a wait for something: the moment itself
            expect_stop(&stage);
        }
    }
}

TEST(Stop, InTheMiddleOfALogSplit)
{
    Stage stage;
    stage.cfg = {{"max_size", "64"}};
    stage_prepare(&stage, false);
    for (const char *line : {"split log file now", "Close log file: "}) {
        ASSERT_TRUE(stage_run(&stage) && stage_wait_online(&stage));
        for (int n = 0; n < 40; n++)
            ASSERT_TRUE(device_sim_send(stage.device, std::string(20000, 'x')));
        EXPECT_TRUE(agent_wait_log(&stage.agent, line));
        expect_stop(&stage);
    }
}
