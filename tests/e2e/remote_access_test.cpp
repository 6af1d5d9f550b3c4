// The remote access policy in the real binary: what it refuses, when it ends a session, what the audit file says.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <sched.h>
#include <signal.h>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

#include "tunnel_stage.h"

static const char k_audit[] = "audit"; // in the agent's directory

static std::string audit_text(const TunnelStage &stage)
{
    return file_text(stage.agent.dir + "/" + k_audit);
}

// The value of a key in each line of the audit file, in order, with blanks between them; "-" where it is missing.
static std::string audit_values(const TunnelStage &stage, const std::string &key)
{
    const std::regex wanted("\"" + key + "\":\"?([^\",}]*)");
    std::istringstream lines(audit_text(stage));
    std::string values;
    std::smatch found;
    for (std::string line; std::getline(lines, line);)
        values += (values.empty() ? "" : " ") + (std::regex_search(line, found, wanted) ? found.str(1) : "-");
    return values;
}

static bool audit_has_lines(const TunnelStage &stage, int count)
{
    return eventually([&] { return text_count(audit_text(stage), "\n") == count; });
}

static bool start(TunnelStage *stage, const DeviceService *web, const DeviceService *telnet, const ConfigRows &rows)
{
    stage->config = rows;
    config_set(&stage->config, "remote_access:audit_file", k_audit);
    return tunnel_stage_start(stage, false, web, telnet);
}

static const char k_web[] = "remote-web", k_telnet[] = "remote-telnet";

// NM asks for a tunnel to its end's port at another host than 127.0.0.1.
static bool start_at(TunnelStage *stage, const std::string &type, const std::string &host)
{
    const int port = type == k_web ? stage->web->command_port() : stage->telnet->command_port();
    return tunnel_start_at(stage, type, host, port);
}

// The log of a tunnel end that cannot be reached.
static void expect_unreachable(TunnelStage *stage, const std::string &type, const std::string &host)
{
    const std::string kind = type == k_web ? "WEB" : "TELNET";
    ASSERT_TRUE(start_at(stage, type, host));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "tunnel... type: REMOTE_" + kind + "_SERVER, peer: " + host + ":"));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "[WRN] Create connection to IP: " + host + ", Port: "));
    EXPECT_TRUE(type == k_web || agent_wait_log(&stage->agent, "[WRN] Create remote telnet tunnel to NM failed!"));
}

// Where nobody listens, and where somebody does but the policy refuses it: one line more in the log, and no connect.
TEST(RemoteAccess, RefusedLooksUnreachable)
{
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, nullptr, nullptr, {{"remote_access:allow_hosts", "127.0.0.2"}}));
    for (const char *type : {k_web, k_telnet}) {
        expect_unreachable(&stage, type, "127.0.0.2");
        expect_unreachable(&stage, type, "127.0.0.1");
    }
    const std::string output = agent_output(stage.agent);
    EXPECT_EQ(2, text_count(output, "TCP connecting [remote (127.0.0.2:"));
    EXPECT_TRUE(
        text_has(output, "[WRN] Remote web to 127.0.0.1 (127.0.0.1:" + std::to_string(stage.web->command_port()) +
                             ") is refused: the tunnel end is not in allow_hosts!"));
    EXPECT_EQ(2, text_count(output, " is refused: "));
    EXPECT_FALSE(text_has(output, "Sending authentication"));
    EXPECT_EQ(0u, stage.web->stats().connects + stage.telnet->stats().connects);

    EXPECT_TRUE(audit_has_lines(stage, 2));
    EXPECT_EQ("refusal refusal", audit_values(stage, "event"));
    EXPECT_EQ("web telnet", audit_values(stage, "kind"));
    EXPECT_EQ("127.0.0.1 127.0.0.1", audit_values(stage, "host"));
    EXPECT_EQ("", stage_wrong(stage));
}

TEST(RemoteAccess, ServiceOff)
{
    for (bool web_is_off : {true, false}) {
        SCOPED_TRACE(web_is_off);
        DeviceService echo(serve_echo);
        TunnelStage stage;
        ASSERT_TRUE(start(&stage, &echo, &echo, {{web_is_off ? "remote_access:web" : "remote_access:telnet", "0"}}));
        ASSERT_TRUE(web_is_off ? web_command(&stage, "start") : telnet_command(&stage, "start"));
        EXPECT_TRUE(agent_wait_log(&stage.agent, " is refused: the service is switched off!"));
        ASSERT_TRUE(web_is_off ? telnet_open(&stage) && telnet_close(&stage) : web_open(&stage) && web_close(&stage));
        EXPECT_TRUE(audit_has_lines(stage, 2));
        EXPECT_EQ("refusal session", audit_values(stage, "event"));
    }
}

// A private /etc/hosts, where that is permitted.
static bool hosts_replace(const std::string &path)
{
    device_write_file(path, "127.0.0.9 tunnel.test\n127.0.0.1 localhost tunnel.test\n");
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(path.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
}

TEST(RemoteAccess, NameThatStopsResolvingRefuses)
{
    char dir[] = "/tmp/hosts_XXXXXX";
    const std::string hosts = std::string(mkdtemp(dir)) + "/hosts";
    if (!hosts_replace(hosts))
        GTEST_SKIP() << "no private mounts";
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, &echo, &echo, {{"remote_access:allow_hosts", "tunnel.test"}}));
    ASSERT_TRUE(telnet_open(&stage) && telnet_close(&stage)); // NM names an address, which the name has
    ASSERT_TRUE(start_at(&stage, k_telnet, "tunnel.test"));   // as written: the first address
    EXPECT_TRUE(agent_wait_log(&stage.agent, "TCP connecting [remote (127.0.0.9:"));
    for (const char *another : {"127.0.0.1 localhost\n", "127.0.0.9 tunnel.test\n"}) { // no address, another one's
        const int fd = open(hosts.c_str(), O_WRONLY | O_TRUNC);                        // in place: the file is mounted
        EXPECT_EQ((ssize_t)strlen(another), write(fd, another, strlen(another)));
        close(fd);
        ASSERT_TRUE(telnet_command(&stage, "start"));
        EXPECT_TRUE(agent_wait_log(&stage.agent, "is refused: the tunnel end is not in allow_hosts!"));
    }
    EXPECT_EQ(1, text_count(agent_output(stage.agent), "gethostbyname() failed: tunnel.test"));
    unlink(hosts.c_str());
    rmdir(dir);
}

static bool echoes(TunnelStage *stage, const std::string &text)
{
    stage->telnet->take_held();
    stage->telnet->send_bytes(text);
    return stage->telnet->wait(k_wait_ms, [&](const TelnetTunnelStats &stats) { return stats.held == text; });
}

TEST(RemoteAccess, QuietShellIsEndedAndABusyOneIsNot)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, &echo, &echo, {{"remote_access:idle_s", "2"}}));
    for (int round = 0; round < 2; round++) { // the next session works
        SCOPED_TRACE(round);
        ASSERT_TRUE(telnet_open(&stage));
        for (int i = 0; i < 10; i++) { // 3 s
            EXPECT_TRUE(echoes(&stage, "ls\n"));
            usleep(300 * 1000);
        }
        EXPECT_TRUE(stage.telnet->stats().connected);
        EXPECT_TRUE(stage.telnet->wait(k_wait_ms, tunnel_is_closed));
        EXPECT_TRUE(echo.wait_serving(0));
        EXPECT_TRUE(agent_wait_log(&stage.agent, "[WRN] Remote telnet has carried nothing for 2 s and is ended!"));
    }
    ASSERT_TRUE(web_open(&stage));
    EXPECT_TRUE(stage.web->wait(k_wait_ms, tunnel_is_closed)); // without an id
    EXPECT_TRUE(agent_wait_log(&stage.agent, "[WRN] Remote web has carried nothing for 2 s and is ended!"));
    EXPECT_TRUE(audit_has_lines(stage, 3));
    EXPECT_EQ("idle idle idle", audit_values(stage, "ended_by"));
    EXPECT_EQ("30 30 0", audit_values(stage, "from_nm"));
    EXPECT_EQ("30 30 0", audit_values(stage, "to_nm"));
    EXPECT_EQ("- - 0", audit_values(stage, "ids"));
}

static void send_endlessly(int fd)
{
    while (fd_send(fd, noise(16384, 3))) {
    }
}

// Both limits, in the middle of ten downloads and of a terminal that scrolls.
TEST(RemoteAccess, SessionAtItsMaximumIsEndedInTheMiddleOfADownload)
{
    DeviceService pages(send_endlessly), terminal(send_endlessly);
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, &pages, &terminal, // busy sessions are longer than idle_s
                      {{"remote_access:idle_s", "11"}, {"remote_access:max_s", "12"}}));
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));
        for (int i = 0; i < 10; i++)
            (void)web_ask(stage.web.get(), "GET");
        EXPECT_TRUE(pages.wait_serving(10));
        EXPECT_TRUE(stage.web->wait(k_wait_ms, tunnel_is_closed));
        EXPECT_TRUE(stage.telnet->wait(k_wait_ms, tunnel_is_closed));
        EXPECT_TRUE(pages.wait_serving(0) && terminal.wait_serving(0));
    }
    EXPECT_EQ(2, text_count(agent_output(stage.agent), "[WRN] Remote web has been open for 12 s and is ended!"));
    EXPECT_EQ(2, text_count(agent_output(stage.agent), "[WRN] Remote telnet has been open for 12 s and is ended!"));
    EXPECT_TRUE(audit_has_lines(stage, 4));
    EXPECT_EQ("max max max max", audit_values(stage, "ended_by"));
    EXPECT_EQ(2, text_count(audit_text(stage), "\"ids\":10,"));
    EXPECT_FALSE(text_has(audit_text(stage), "\"to_nm\":0"));
}

// Each way in which a session ends, and the line that says so. Neither token nor key stands in the file.
TEST(RemoteAccess, AuditSaysWhoEndedIt)
{
    DeviceService echo(serve_echo), files(serve_web_files);
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, &files, &echo, {}));
    ASSERT_TRUE(web_open(&stage));
    EXPECT_TRUE(web_data_is(stage.web.get(), web_ask(stage.web.get(), "20000 7\n"), noise(20000, 7)));
    ASSERT_TRUE(web_open(&stage)); // in place of the first one
    stage.web->close_agent();
    EXPECT_TRUE(audit_has_lines(stage, 2));
    ASSERT_TRUE(telnet_open(&stage));
    stage.telnet->close_agent(true);
    EXPECT_TRUE(audit_has_lines(stage, 3));
    EXPECT_TRUE(echo.wait_serving(0));
    ASSERT_TRUE(telnet_open(&stage) && echo.wait_serving(1));
    echo.hang_up();
    EXPECT_TRUE(audit_has_lines(stage, 4));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(audit_has_lines(stage, 6));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully") && stage_fast_heartbeat(&stage));
    ASSERT_TRUE(telnet_open(&stage));
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM, 2000));

    EXPECT_EQ("nm nm nm device restart restart stop", audit_values(stage, "ended_by"));
    EXPECT_EQ(0u, audit_values(stage, "ids").find("1 0 - - "));
    EXPECT_EQ(0u, audit_values(stage, "from_nm").find("25 0 0 0 ")); // one frame with its header
    EXPECT_GT(atoi(audit_values(stage, "to_nm").c_str()), 20000 + 17);
    const std::string text = audit_text(stage);
    EXPECT_EQ(7, text_count(text, "\"session\":\"0f9e-11\""));
    EXPECT_FALSE(text_has(text, "a token") || text_has(text, "1234567"));
}

// An NM that takes no byte any more is given up: that was nobody's wish.
TEST(RemoteAccess, AuditTellsAnErrorFromAnEnd)
{
    DeviceService endless(send_endlessly);
    TunnelStage stage;
    ASSERT_TRUE(start(&stage, &endless, &endless, {}));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));
    stage.web->stall_reading(true);
    stage.telnet->stall_reading(true);
    (void)web_ask(stage.web.get(), "GET");
    EXPECT_TRUE(audit_has_lines(stage, 2));
    EXPECT_EQ("error error", audit_values(stage, "ended_by"));
}
