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

// All byte values, then more than fits into any buffer on the way.
static void all_bytes(bool https)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, https, nullptr, &echo) && telnet_open(&stage));
    std::string bytes;
    for (int i = 0; i < 512; i++)
        bytes += (char)i;
    bytes += noise(50000, 1);
    int fd = client_connect(stage.telnet->client_port());
    ASSERT_TRUE(fd_send(fd, bytes));
    EXPECT_TRUE(fd_read(fd, bytes.size()) == bytes);
    close(fd);
}

TEST(TunnelTelnet, AllByteValues)
{
    all_bytes(false);
    all_bytes(true);
}

TEST(TunnelTelnet, AnswersOfNm)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &echo));
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
        EXPECT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &stats) { return !stats.connected; }));
    }
    EXPECT_EQ(0, echo.accepted());
    stage.telnet->set_answers(TELNET_ANSWER_ONE_SEGMENT);
    ASSERT_TRUE(telnet_open(&stage));
    stage.telnet->send_bytes("hello");
    EXPECT_TRUE(held_is(stage.telnet.get(), "hello"));
}

// "INIT" in a standing tunnel: a fresh session of the device, which never sees the text. Then each side goes away.
TEST(TunnelTelnet, FreshSessionAndLostSides)
{
    std::atomic<int> session{0};
    DeviceService device([&session](int fd) {
        fd_send(fd, "session " + std::to_string(++session) + "\n");
        std::string line;
        while (!(line = fd_read_line(fd)).empty() && line != "quit")
            fd_send(fd, "got " + line + "\n");
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &device));
    TelnetTunnelSim *telnet = stage.telnet.get();
    ASSERT_TRUE(telnet_open(&stage));
    ASSERT_TRUE(held_is(telnet, "session 1\n"));
    telnet->send_init();
    ASSERT_TRUE(held_is(telnet, "session 1\nsession 2\n"));
    EXPECT_TRUE(device.wait_serving(1));
    telnet->send_bytes("a\n");
    EXPECT_TRUE(held_is(telnet, "session 1\nsession 2\ngot a\n"));

    telnet->send_bytes("quit\n"); // the device hangs up
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Destroy tunnel"));
    EXPECT_TRUE(telnet->wait(k_wait_ms, [](const TelnetTunnelStats &stats) { return !stats.connected; }));
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset);
        ASSERT_TRUE(telnet_open(&stage));
        ASSERT_TRUE(device.wait_serving(1));
        telnet->close_agent(reset);
        EXPECT_TRUE(device.wait_serving(0));
    }
}

// A device that never stops talking must still hear the interrupt key.
TEST(TunnelTelnet, FloodingDeviceHearsTheInterrupt)
{
    DeviceService device([](int fd) {
        std::thread talk([fd] {
            while (fd_send(fd, noise(4096, 2))) {
            }
        });
        while (fd_read(fd, 1).find_first_not_of('\3') != std::string::npos) {
        }
        shutdown(fd, SHUT_RDWR);
        talk.join();
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, nullptr, &device) && telnet_open(&stage));
    ASSERT_TRUE(stage.telnet->wait(k_wait_ms, [](const TelnetTunnelStats &s) { return s.bytes_in > 200000; }));
    const long long typed_ms = monotonic_ms();
    stage.telnet->send_bytes("\3");
    EXPECT_TRUE(device.wait_serving(0));
    EXPECT_LT(monotonic_ms() - typed_ms, 5000);
}

TEST(TunnelTelnet, ShellOfTelnetd)
{
    if (access("/usr/sbin/telnetd", X_OK) != 0)
        GTEST_SKIP() << "no telnet server: install inetutils-telnetd";
    DeviceService telnetd(serve_program({"/usr/sbin/telnetd", "-h", "-E", "/bin/sh"}));
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, nullptr, &telnetd) && telnet_open(&stage));
    int fd = client_connect(stage.telnet->client_port());
    std::string screen, byte;
    bool typed = false;
    while (!text_has(screen, "made 42 of it") && !(byte = fd_read(fd, 1)).empty()) {
        if (byte == "\xff") { // an option, which is refused
            const std::string option = fd_read(fd, 2);
            fd_send(fd, (option[0] == '\xfd' ? "\xff\xfc" : "\xff\xfe") + option.substr(1));
        } else {
            screen += byte;
        }
        if (!typed && screen.find_first_of("#$") != std::string::npos)
            typed = fd_send(fd, "echo made $((6 * 7)) of it\r\n");
    }
    EXPECT_TRUE(text_has(screen, "made 42 of it")) << screen;
    close(fd);
}
