// The agent that verifies NM, with the right NM, with strangers, and on a line that somebody else sits on.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sim_cert.h"
#include "tunnel_stage.h"

// NM, known by its name, with tunnel ends known by their address, and an agent that verifies them.
struct VerifiedStage : TunnelStage {
    SimCertDir certs;

    VerifiedStage()
    {
        certs.make("ca", {"the CA", "", true});
        certs.make("other-ca", {"another CA", "", true});
        certs.make("nm", {"NM", "DNS:localhost"}, "ca");
        certs.make("tunnels", {"tunnels of NM", "IP:127.0.0.1"}, "ca");
        certs.make("device", {"SN00000001", ""}, "ca");
        certs.make("stranger", {"stranger", "DNS:localhost,IP:127.0.0.1"}, "other-ca");
        nm_options.tls = certs.server("nm", "ca");
        options.tls_files = certs.server("tunnels", "ca");
    }
    void verify()
    {
        device_cfg_set_text(&cfg, "host", "localhost");
        config_set(&config, "nm_tls:ca_file", certs.file("ca"));
        config_set(&config, "nm_tls:client_cert", certs.file("device"));
        config_set(&config, "nm_tls:client_key", certs.file("device.key"));
        config_set(&config, "nm_tls:handshake_timeout_s", "1");
        config_set(&config, "plugin_config:log_secrets", "0");
    }
    bool tunnel_start(const char *type, const char *host, int port)
    {
        const TunnelAuth &auth = options.auth;
        return stage_command(this,
                             nm_command_tunnel({type, "start", host, port, auth.token, auth.key, auth.sessionid}));
    }
    // What must reach nobody but NM, and no log.
    std::vector<std::string> secrets() const
    {
        const std::string header = nm_sim_request(nm, "active", 0).headers.at(3);
        EXPECT_EQ(0u, header.find("secretKey: ")) << header;
        return {options.auth.token, std::to_string(options.auth.key), header.substr(11)};
    }
};

static void expect_ack(Stage *stage, const char *result)
{
    const int before = device_sim_count(stage->device, "cfg-ack");
    ASSERT_TRUE(device_sim_send(stage->device, R"({"type":"cfg-result","sessionid":"s"})"));
    ASSERT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", before + 1, k_wait_ms));
    const std::string ack = device_sim_frame(stage->device, "cfg-ack", -1).text;
    EXPECT_TRUE(text_has(ack, std::string("\"result\":") + result)) << ack;
}

static const char k_stranger[] = "refused: unable to get local issuer certificate, peer's certificate: /CN=stranger";

// The tunnel end that NM names has another's certificate.
template <class Sim> static void refuse_tunnel_end(VerifiedStage *stage, const char *type)
{
    SCOPED_TRACE(type);
    TunnelSimOptions options = stage->options;
    options.tls_files = stage->certs.server("stranger", "ca");
    Sim stranger(options);
    EXPECT_TRUE(stage->tunnel_start(type, "127.0.0.1", stranger.command_port()));
    EXPECT_TRUE(agent_wait_log(&stage->agent, std::string("TLS with 127.0.0.1 ") + k_stranger));
    EXPECT_TRUE(stranger.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.closes == 1; }));
    EXPECT_EQ("", stranger.stats().auth_text);
    options.tls_files = stage->certs.server("nm", "ca"); // of the same CA
    Sim named(options);
    EXPECT_TRUE(stage->tunnel_start(type, "127.0.0.1", named.command_port()));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "TLS with 127.0.0.1 refused: IP address mismatch"));
    EXPECT_TRUE(stage->tunnel_start(type, "localhost", named.command_port()));
    EXPECT_TRUE(named.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.authenticated; }));
}

TEST(Verified, JoinsAndRefusesStrangers)
{
    DeviceService files(serve_web_files), echo(serve_echo);
    VerifiedStage stage;
    stage.verify();
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "heartbeat", 1, k_wait_ms));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage) && web_close(&stage) && telnet_close(&stage));
    EXPECT_FALSE(agent_has_log(stage.agent, "[ERR]"));

    refuse_tunnel_end<WebTunnelSim>(&stage, "remote-web");
    refuse_tunnel_end<TelnetTunnelSim>(&stage, "remote-telnet");
    const std::string ca = stage.certs.file("ca"), gone = stage.certs.file("gone");
    ASSERT_EQ(0, rename(ca.c_str(), gone.c_str()));
    expect_ack(&stage, "false");
    ASSERT_EQ(0, rename(gone.c_str(), ca.c_str()));
    expect_ack(&stage, "true");

    NmOptions options;
    options.https = true;
    options.tls = stage.certs.server("stranger", "ca");
    NmSim *stranger = nm_sim_start(options);
    NmActivation redirection;
    redirection.status = 304;
    redirection.redirect_ip = "localhost";
    redirection.redirect_port = nm_sim_port(stranger) - 1;
    nm_sim_set_activation(stage.nm, redirection);
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Will redirect to the new NMS: 127.0.0.1"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, std::string("TLS with localhost ") + k_stranger));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Device active failed!"));
    EXPECT_EQ(0u, nm_sim_transcript(stranger).all().size());
    for (const std::string &secret : stage.secrets())
        EXPECT_FALSE(agent_has_log(stage.agent, secret)) << secret;
    EXPECT_TRUE(agent_has_log(stage.agent, "\"token\":\"***\",\"key\":***"));
    EXPECT_TRUE(agent_has_log(stage.agent, "secretKey: ***"));
    EXPECT_EQ("", stage_end(&stage));
    nm_sim_stop(stranger);
}

enum LineMode { LINE_PASS, LINE_PLAIN, LINE_RESET, LINE_STALL };

static bool pump(int from, int to)
{
    char bytes[16384];
    const ssize_t count = recv(from, bytes, sizeof(bytes), 0);
    return count > 0 && fd_send(to, std::string(bytes, (size_t)count));
}

// A line of which somebody is in control: passes bytes on to NM, or answers himself and keeps what the agent sends.
struct Line {
    int nm_port;
    std::atomic<LineMode> mode;
    std::atomic<int> attacked{0};
    std::mutex lock;
    std::string captured;                                       // guarded by lock until all connections have ended
    DeviceService service{[this](int fd) { serve(fd, mode); }}; // ends first

    Line(int port, LineMode first) : nm_port(port), mode(first)
    {
    }
    void serve(int fd, LineMode now)
    {
        now == LINE_PASS ? pass(fd) : attack(fd, now);
    }
    void pass(int fd)
    {
        const int nm = client_connect(nm_port);
        pollfd ends[2] = {{fd, POLLIN, 0}, {nm, POLLIN, 0}};
        while (poll(ends, 2, -1) > 0 && (ends[0].revents == 0 || pump(fd, nm)) &&
               (ends[1].revents == 0 || pump(nm, fd))) {
        }
        close(nm);
    }
    bool capture(int fd)
    {
        char bytes[16384];
        const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
        std::lock_guard<std::mutex> guard(lock);
        captured.append(bytes, count > 0 ? (size_t)count : 0);
        return count > 0;
    }
    void attack(int fd, LineMode how)
    {
        const linger at_once = {1, 0};
        attacked++;
        capture(fd);
        if (how == LINE_RESET)
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        if (how == LINE_PLAIN)
            fd_send(fd, "HTTP/1.1 200 OK\r\nContent-Length: 14\r\n\r\n{\"status\":200}");
        while (how != LINE_RESET && capture(fd)) {
        }
    }
    // Handshakes, and nothing else.
    void expect_nothing(const VerifiedStage &stage)
    {
        std::lock_guard<std::mutex> guard(lock);
        EXPECT_EQ(0u, captured.find("\x16\x03"));
        std::vector<std::string> forbidden = stage.secrets();
        for (const char *text : {"POST", "HTTP", "dev-api", "SN00000001", "secretKey", "deviceSn", "status"})
            forbidden.push_back(text);
        for (const std::string &text : forbidden)
            EXPECT_FALSE(text_has(captured, text)) << text;
    }
};

static const struct {
    LineMode mode;
    const char *line;
} k_attacks[] = {
    {LINE_PLAIN, "refused: wrong version number, peer's certificate: none"},
    {LINE_RESET, "refused: Connection reset by peer, peer's certificate: none"},
    {LINE_STALL, "refused: handshake_timeout_s is over, peer's certificate: none"},
};

TEST(Verified, WhoeverCutsTheLineGetsNothing)
{
    VerifiedStage stage;
    stage_prepare(&stage, true);
    stage.verify();
    config_set(&stage.config, "plugin_config:log_level", "7");
    Line line(nm_sim_port(stage.nm), LINE_PLAIN);
    device_cfg_set(&stage.cfg, "port", std::to_string(line.service.port() - 1));
    ASSERT_TRUE(stage_run(&stage));
    ASSERT_TRUE(agent_wait_log(&stage.agent, k_attacks[0].line)); // the activation
    line.mode = LINE_PASS;
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully") && stage_fast_heartbeat(&stage));

    for (const auto &attack : k_attacks) {
        SCOPED_TRACE(attack.line);
        line.mode = attack.mode;
        nm_sim_drop_connections(stage.nm);
        expect_ack(&stage, "false"); // a connection of its own
        EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
        const int before = line.attacked;
        nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
        EXPECT_TRUE(eventually([&] { return line.attacked > before; })); // the kept one
        EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
        line.mode = LINE_PASS;
        expect_ack(&stage, "true");
        for (const char *type : {"remote-web", "remote-telnet"}) {
            SCOPED_TRACE(type);
            Line end(0, attack.mode);
            EXPECT_TRUE(stage.tunnel_start(type, "127.0.0.1", end.service.port() - 1));
            EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
            EXPECT_TRUE(end.service.wait_serving(0) && end.attacked > 0);
            end.expect_nothing(stage);
        }
    }
    line.expect_nothing(stage);
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM));
}
