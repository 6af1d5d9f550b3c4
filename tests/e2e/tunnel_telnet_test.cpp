// The remote-telnet tunnel of the real binary: set-up, bytes, sessions.
#include <atomic>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tunnel_stage.h"

static bool held_is(TelnetTunnelSim *telnet, const std::string &expected)
{
    return telnet->wait(k_wait_ms, [&](const TelnetTunnelStats &stats) { return stats.held == expected; });
}

TEST(TunnelTelnet, AnswersOfNm)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, nullptr, &echo));
    const struct {
        TelnetAnswers answers;
        const char *line;
    } refusals[] = {
        {TELNET_ANSWER_REFUSE, "Remote-telnet authentication/INIT failed!"},
        {TELNET_ANSWER_SILENT, "Receive remote-telnet authentication response timeout!"},
        {TELNET_ANSWER_NO_INIT, "Receive remote-telnet authentication auth_rsp timeout!"},
    };
    for (const auto &refusal : refusals) {
        SCOPED_TRACE(refusal.line);
        stage.telnet->set_answers(refusal.answers);
        ASSERT_TRUE(telnet_command(&stage, "start"));
        EXPECT_TRUE(agent_wait_log(&stage.agent, refusal.line));
        EXPECT_TRUE(agent_wait_log(&stage.agent, "Authentication/INIT failure!"));
        EXPECT_TRUE(stage.telnet->wait(k_wait_ms, tunnel_is_closed));
    }
    EXPECT_EQ(0, echo.accepted());
    stage.telnet->set_answers(TELNET_ANSWER_SILENT); // a stop does not sit the 5 s out
    ASSERT_TRUE(telnet_command(&stage, "start"));
    ASSERT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &stats) { return stats.authenticated; }));
    const size_t from = agent_output(stage.agent).size();
    ASSERT_TRUE(telnet_close(&stage));
    stage.telnet->set_answers(TELNET_ANSWER_ONE_SEGMENT);
    ASSERT_TRUE(telnet_open(&stage));
    EXPECT_FALSE(text_has(agent_output(stage.agent).substr(from), "response timeout!"));
    stage.telnet->send_bytes(noise(50000, 1)); // more than fits into any buffer on the way
    EXPECT_TRUE(held_is(stage.telnet.get(), noise(50000, 1)));
}

// "INIT" in a standing tunnel: a fresh session of the device, which never sees the text. Then each side goes away.
TEST(TunnelTelnet, FreshSessionAndLostSides)
{
    std::atomic<int> session{0};
    DeviceService device([&session](int fd) {
        fd_send(fd, "session " + std::to_string(++session) + "\n");
        std::string line;
        while (!(line = fd_read_line(fd)).empty() && line[0] != '-')
            fd_send(fd, "got " + line + "\n");
        fd_send(fd, noise((unsigned)atoi(line.c_str() + 1), 9));
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &device));
    TelnetTunnelSim *telnet = stage.telnet.get();
    const std::pair<int, int> idle = proc_usage_at_rest(stage.agent.pid);
    ASSERT_TRUE(telnet_open(&stage));
    ASSERT_TRUE(held_is(telnet, "session 1\n"));
    telnet->send_init();
    ASSERT_TRUE(held_is(telnet, "session 1\nsession 2\n"));
    EXPECT_TRUE(device.wait_serving(1));
    telnet->send_bytes("a\n");
    EXPECT_TRUE(held_is(telnet, "session 1\nsession 2\ngot a\n"));

    std::string said = "session 1\nsession 2\ngot a\n";
    int number = 2;
    for (const char *bytes : {"60000", "3"}) { // the device hangs up right behind so many, which arrive all the same
        telnet->send_bytes("-" + std::string(bytes) + "\n");
        EXPECT_TRUE(held_is(telnet, said + noise((unsigned)atoi(bytes), 9)));
        EXPECT_TRUE(agent_wait_log(&stage.agent, "Destroy tunnel"));
        EXPECT_TRUE(telnet->wait(k_wait_ms, tunnel_is_closed));
        ASSERT_TRUE(telnet_open(&stage));
        said = "session " + std::to_string(++number) + "\n";
        ASSERT_TRUE(held_is(telnet, said));
    }
    ASSERT_TRUE(telnet_close(&stage));
    const auto lose = [&](bool reset) {
        ASSERT_TRUE(telnet_open(&stage));
        ASSERT_TRUE(device.wait_serving(1));
        telnet->close_agent(reset);
        EXPECT_TRUE(device.wait_serving(0));
    };
    lose(false);
    // Between two steps of the relay the liveness test finds the reset first, and says so otherwise.
    for (int i = 0; i < 20 && !agent_has_log(stage.agent, "Broken tunnel from 127.0.0.1:"); i++)
        lose(true);
    EXPECT_TRUE(agent_has_log(stage.agent, "Broken tunnel from 127.0.0.1:"));
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
}

// A device that never stops talking must still hear the interrupt key, also when NM takes only a part of what it says.
TEST(TunnelTelnet, FloodingDeviceHearsTheInterrupt)
{
    std::atomic<int> heard{0};
    DeviceService device([&heard](int fd) {
        std::thread talk([fd] {
            while (fd_send(fd, noise(4096, 2))) {
            }
        });
        while (fd_read(fd, 1) == "\3")
            heard++;
        shutdown(fd, SHUT_RDWR);
        talk.join();
    });
    TunnelStage stage;
    stage.options.receive_buffer = 8192;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &device) && telnet_open(&stage));
    int typed = 0;
    for (int bytes_per_s : {0, 20000}) {
        SCOPED_TRACE(bytes_per_s);
        const uint64_t before = stage.telnet->stats().bytes_in;
        stage.telnet->read_slowly(bytes_per_s);
        ASSERT_TRUE(stage.telnet->wait(
            k_wait_ms, [&](const TelnetTunnelStats &stats) { return stats.bytes_in > before + 100000; }));
        int late = 0;
        for (int i = 0; i < 5; i++) {
            stage.telnet->send_bytes("\3");
            typed++;
            late += !eventually([&] { return heard == typed; }, 300);
        }
        EXPECT_LE(late, 1); // the machine may have been busy once
        EXPECT_TRUE(eventually([&] { return heard == typed; }));
    }
    EXPECT_FALSE(agent_has_log(stage.agent, "send failed"));
}

// Takes no input before its output has been read, and its buffers are small. Its urgent byte, as that of a telnet
// service's Data Mark, is one of the stream.
TEST(TunnelTelnet, DeviceThatBlocksOnItsOutput)
{
    DeviceService device(
        [](int fd) {
            fd_send(fd, "a\xff");
            send(fd, "\xf2", 1, MSG_OOB);
            fd_send(fd, "b");
            for (unsigned i = 0; fd_read(fd, 512) == noise(512, i) && fd_send(fd, noise(8192, i)); i++) {
            }
        },
        true, 4096);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &device) && telnet_open(&stage));
    EXPECT_TRUE(held_is(stage.telnet.get(), "a\xff\xf2"
                                            "b"));
    std::string keys, said = stage.telnet->take_held();
    for (unsigned i = 0; i < 40; i++) {
        keys += noise(512, i);
        said += noise(8192, i);
    }
    stage.telnet->send_bytes(keys);
    EXPECT_TRUE(held_is(stage.telnet.get(), said.substr(said.size() - 40 * 8192)));
    EXPECT_FALSE(agent_has_log(stage.agent, "send failed"));

    stage.telnet->send_bytes(noise(300000, 99)); // ends the session, with most of it still on the way
    EXPECT_TRUE(stage.telnet->wait(k_wait_ms, tunnel_is_closed));
    ASSERT_TRUE(telnet_open(&stage)); // the next one gets nothing of it
    stage.telnet->send_bytes(noise(512, 0));
    EXPECT_TRUE(held_is(stage.telnet.get(), "a\xff\xf2"
                                            "b" +
                                                noise(8192, 0)));
}

// A telnet client pastes the commands and one that ends them. The milliseconds until all is done; -1 when something is
// missing.
static long long paste(int port, const std::string &commands, int count)
{
    DeviceService client(serve_program({"/bin/busybox", "telnet", "127.0.0.1", std::to_string(port)}));
    const int fd = client_connect(client.port()); // its keyboard and its screen
    std::string screen;
    const auto shows = [&](const std::string &text) {
        char bytes[65536];
        ssize_t got = 1;
        while (!text_has(screen, text) && (got = recv(fd, bytes, sizeof(bytes), 0)) > 0)
            screen.append(bytes, (size_t)got);
        return got > 0;
    };
    bool whole = shows(geteuid() == 0 ? "#" : "$");
    const long long begin_ms = monotonic_ms();
    std::thread typist([&] { fd_send(fd, commands + "echo all$((6 * 7))done\r\n"); });
    whole = whole && shows("all42done");
    const long long took_ms = monotonic_ms() - begin_ms;
    shutdown(fd, SHUT_RDWR); // a typist that nobody listens to
    typist.join();
    close(fd);
    for (int i = 0; i < count; i++)
        whole = whole && text_has(screen, "=" + std::to_string(i * 7) + "=");
    return whole ? took_ms : -1;
}

TEST(TunnelTelnet, ShellOfTelnetd)
{
    if (access("/usr/sbin/telnetd", X_OK) != 0 || access("/bin/busybox", X_OK) != 0)
        GTEST_SKIP() << "no telnet server or client: install inetutils-telnetd and busybox";
    DeviceService telnetd(serve_program({"/usr/sbin/telnetd", "-h", "-E", "/bin/sh"}), true, 4096);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, nullptr, &telnetd) && telnet_open(&stage));
    const struct {
        const char *what;
        const char *words; // before the number
        int count;
        size_t line; // bytes of each command
    } rows[] = {
        {"27.8 KB of commands", "echo line ", 400, 69},
        {"461 KB of output", "printf %04600d 1; echo ", 100, 52},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::string commands;
        for (int i = 0; i < row.count; i++) {
            std::string line = row.words + ("=$((" + std::to_string(i) + "*7))= ");
            commands += line + std::string(row.line - line.size(), 'x') + "\r\n";
        }
        const long long direct_ms = paste(telnetd.port(), commands, row.count);
        ASSERT_GE(direct_ms, 0);
        const long long tunnel_ms = paste(stage.telnet->client_port(), commands, row.count);
        EXPECT_GE(tunnel_ms, 0);
        EXPECT_LE(tunnel_ms, 2 * direct_ms + 1000) << "direct " << direct_ms; // the machine may be busy
        ASSERT_TRUE(telnet_close(&stage) && telnet_open(&stage));
    }
    EXPECT_FALSE(agent_has_log(stage.agent, "send failed"));
}
