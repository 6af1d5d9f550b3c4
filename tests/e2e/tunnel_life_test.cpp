// Both tunnels' lives in the real binary: set up, stopped, lost, again and again; and the process ended in the middle.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tunnel_stage.h"

TEST(TunnelLife, StartAndStopAgainAndAgain)
{
    DeviceService files(serve_web_files);
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &files, &echo));
    const std::pair<int, int> idle = proc_usage_at_rest(stage.agent.pid);
    int rss_kib = 0;
    for (int cycle = 0; cycle < 4; cycle++) {
        SCOPED_TRACE(cycle);
        ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));
        EXPECT_TRUE(answer_of(stage.web->client_port(), "100000 7\n") == noise(100000, 7));
        ASSERT_TRUE(cycle % 2 == 0 || (web_open(&stage) && telnet_open(&stage))); // on top of standing tunnels
        stage.telnet->send_bytes("x");
        EXPECT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &s) { return s.held == "x"; }));
        stage.telnet->take_held();
        ASSERT_TRUE(web_close(&stage) && telnet_close(&stage));
        EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
        if (cycle == 1)
            rss_kib = proc_rss_kib(stage.agent.pid); // every buffer has been used by now
    }
    EXPECT_TRUE(!proc_rss_counts() || proc_rss_kib(stage.agent.pid) < rss_kib + 512);
    EXPECT_TRUE(files.wait_serving(0));
    EXPECT_TRUE(echo.wait_serving(0));
    EXPECT_EQ("", stage_wrong(stage));
}

// NM takes the connection and never says a word, not even of TLS: a stop calls the set-up off, and SIGTERM ends it too.
TEST(TunnelLife, StopDuringSetUp)
{
    TunnelStage stage;
    stage.options.mute = true;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, nullptr, nullptr));
    const std::pair<int, int> idle = proc_usage_at_rest(stage.agent.pid);
    const auto hangs = [](const TunnelStats &stats) { return stats.connected; };
    ASSERT_TRUE(web_command(&stage, "start") && stage.web->wait(k_wait_ms, hangs));
    ASSERT_TRUE(telnet_command(&stage, "start") && stage.telnet->wait(k_wait_ms, hangs));
    ASSERT_TRUE(web_command(&stage, "stop"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Remote web stopped"));
    ASSERT_TRUE(telnet_command(&stage, "stop"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Remote telnet stopped"));
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
    EXPECT_FALSE(agent_has_log(stage.agent, "Sending authentication")); // no token for a handshake that was called off

    stage.web->close_agent();
    ASSERT_TRUE(web_command(&stage, "start") && stage.web->wait(k_wait_ms, hangs));
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM, 2000));
}

// Everything in motion: ten downloads, a terminal that scrolls, and an NM that reads on, or over TLS does not.
static void end_in_the_middle(bool stalled)
{
    DeviceService endless([](int fd) {
        while (fd_send(fd, noise(16384, 3))) {
        }
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, stalled, &endless, &endless) && web_open(&stage) && telnet_open(&stage));
    for (int i = 0; i < 10; i++)
        stage.web->send_bytes(web_frame(WEB_FRAME_REQ, stage.web->open_id(), "GET"));
    ASSERT_TRUE(endless.wait_serving(11));
    ASSERT_TRUE(stage.web->wait(k_wait_ms, [](const WebTunnelStats &stats) { return stats.bytes_in > 500000; }));
    ASSERT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &stats) { return stats.bytes_in > 500000; }));
    stage.web->stall_reading(stalled);
    stage.telnet->stall_reading(stalled);
    usleep(stalled ? 500000 : 0); // until the buffers are full, of which nothing tells
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM, 2000));
    EXPECT_TRUE(endless.wait_serving(0));
}

TEST(TunnelLife, TerminatedWhileBusy)
{
    end_in_the_middle(false);
    end_in_the_middle(true);
}
