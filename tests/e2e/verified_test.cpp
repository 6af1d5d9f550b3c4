// The agent that verifies NM, with the right NM, with strangers, and on a line that somebody else sits on.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "sim_cert.h"
#include "sim_socket.h"
#include "tunnel_stage.h"

// A CA with NM and a device, and a stranger, as files.
struct Certificates {
    std::string dir;

    Certificates()
    {
        char path[] = "/tmp/agent-certs-XXXXXX";
        dir = mkdtemp(path);
        const SimCert ca = sim_cert_make({"the CA", "", true});
        const SimCert other_ca = sim_cert_make({"another CA", "", true});
        write("ca", ca);
        write("nm", sim_cert_make({"NM", "DNS:localhost"}, &ca));
        write("tunnels", sim_cert_make({"tunnels of NM", "IP:127.0.0.1"}, &ca));
        write("device", sim_cert_make({"SN00000001", ""}, &ca));
        write("stranger", sim_cert_make({"stranger", "DNS:localhost,IP:127.0.0.1"}, &other_ca));
    }
    ~Certificates()
    {
        (void)!system(("rm -r " + dir).c_str());
    }
    void write(const std::string &name, const SimCert &cert)
    {
        EXPECT_TRUE(device_write_file(file(name), sim_cert_pem(cert)));
        EXPECT_TRUE(device_write_file(file(name + ".key"), sim_key_pem(cert)));
    }
    std::string file(const std::string &name) const
    {
        return dir + "/" + name;
    }
    SimTlsFiles server(const std::string &name) const
    {
        return {file(name), file(name + ".key"), file("ca")};
    }
};

// NM, known by its name, with tunnel ends known by their address, and an agent that verifies them.
static void verified(TunnelStage *stage, const Certificates &certs)
{
    stage->nm_options.tls = certs.server("nm");
    stage->options.tls_files = certs.server("tunnels");
    device_cfg_set_text(&stage->cfg, "host", "localhost");
    config_set(&stage->config, "nm_tls:ca_file", certs.file("ca"));
    config_set(&stage->config, "nm_tls:client_cert", certs.file("device"));
    config_set(&stage->config, "nm_tls:client_key", certs.file("device.key"));
    config_set(&stage->config, "nm_tls:handshake_timeout_s", "1");
    config_set(&stage->config, "plugin_config:log_secrets", "0");
}

static void expect_ack(Stage *stage, const char *result)
{
    const int before = device_sim_count(stage->device, "cfg-ack");
    ASSERT_TRUE(device_sim_send(stage->device, R"({"type":"cfg-result","sessionid":"s"})"));
    ASSERT_TRUE(device_sim_wait_for(stage->device, "cfg-ack", before + 1, k_wait_ms));
    const std::string ack = device_sim_frame(stage->device, "cfg-ack", -1).text;
    EXPECT_TRUE(text_has(ack, std::string("\"result\":") + result)) << ack;
}

static bool tunnel_start(TunnelStage *stage, const char *type, const char *host, int port)
{
    const TunnelAuth &auth = stage->options.auth;
    return stage_command(stage, nm_command_tunnel({type, "start", host, port, auth.token, auth.key, auth.sessionid}));
}

static const char k_types[][16] = {"remote-web", "remote-telnet"};

// What must reach nobody but NM, and no log.
static std::vector<std::string> secrets(const TunnelStage &stage)
{
    const std::string header = nm_sim_request(stage.nm, "active", 0).headers.at(3);
    EXPECT_EQ(0u, header.find("secretKey: ")) << header;
    return {stage.options.auth.token, std::to_string(stage.options.auth.key), header.substr(11)};
}

// The tunnel end that NM names has another's certificate.
template <class Sim> static void refuse_tunnel_end(TunnelStage *stage, const Certificates &certs, const char *type)
{
    SCOPED_TRACE(type);
    TunnelSimOptions options = stage->options;
    options.tls_files = certs.server("stranger");
    Sim stranger(options);
    EXPECT_TRUE(tunnel_start(stage, type, "127.0.0.1", stranger.command_port()));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "TLS with 127.0.0.1 refused: unable to get local issuer certificate, "
                                              "peer's certificate: /CN=stranger"));
    EXPECT_TRUE(stranger.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.closes == 1; }));
    EXPECT_EQ("", stranger.stats().auth_text);
    options.tls_files = certs.server("nm"); // of the same CA
    Sim named(options);
    EXPECT_TRUE(tunnel_start(stage, type, "127.0.0.1", named.command_port()));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "TLS with 127.0.0.1 refused: IP address mismatch"));
    EXPECT_TRUE(tunnel_start(stage, type, "localhost", named.command_port()));
    EXPECT_TRUE(named.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.authenticated; }));
}

TEST(Verified, JoinsAndRefusesStrangers)
{
    Certificates certs;
    DeviceService files(serve_web_files), echo(serve_echo);
    TunnelStage stage;
    verified(&stage, certs);
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "heartbeat", 1, k_wait_ms));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage) && web_close(&stage) && telnet_close(&stage));
    EXPECT_FALSE(agent_has_log(stage.agent, "[ERR]"));

    refuse_tunnel_end<WebTunnelSim>(&stage, certs, k_types[0]);
    refuse_tunnel_end<TelnetTunnelSim>(&stage, certs, k_types[1]);
    ASSERT_EQ(0, rename(certs.file("ca").c_str(), certs.file("gone").c_str()));
    expect_ack(&stage, "false");
    EXPECT_TRUE(agent_wait_log(&stage.agent, "/ca' cannot be used: No such file or directory!"));
    ASSERT_EQ(0, rename(certs.file("gone").c_str(), certs.file("ca").c_str()));
    expect_ack(&stage, "true");
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage));

    NmOptions options;
    options.https = true;
    options.tls = certs.server("stranger");
    NmSim *stranger = nm_sim_start(options);
    NmActivation redirection;
    redirection.status = 304;
    redirection.redirect_ip = "localhost";
    redirection.redirect_port = nm_sim_port(stranger) - 1;
    nm_sim_set_activation(stage.nm, redirection);
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Will redirect to the new NMS: 127.0.0.1"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "TLS with localhost refused: unable to get local issuer certificate, "
                                             "peer's certificate: /CN=stranger"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Device active failed!"));
    EXPECT_EQ(0u, nm_sim_transcript(stranger).all().size());
    for (const std::string &secret : secrets(stage))
        EXPECT_FALSE(agent_has_log(stage.agent, secret)) << secret;
    EXPECT_TRUE(agent_has_log(stage.agent, "\"token\":\"***\",\"key\":***") &&
                agent_has_log(stage.agent, "secretKey: ***"));
    EXPECT_EQ("", stage_end(&stage));
    nm_sim_stop(stranger);
}

enum LineMode { LINE_PASS, LINE_PLAIN, LINE_RESET, LINE_STALL };

// A line of which somebody is in control: passes bytes on to NM, or answers himself and keeps what the agent sends.
class Line
{
  public:
    Line(int nm_port, LineMode mode) : nm_port_(nm_port), mode_(mode)
    {
        listener_ = sim_listen_tcp("127.0.0.1", &port);
        acceptor_ = std::thread([this] { accept_all(); });
    }
    ~Line()
    {
        stop_ = true;
        acceptor_.join();
        for (std::thread &thread : threads_)
            thread.join();
        close(listener_);
    }
    void set(LineMode mode)
    {
        mode_ = mode;
    }
    std::string captured()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return captured_;
    }
    int port = 0;
    std::atomic<int> attacked{0};

  private:
    bool readable(int fd)
    {
        pollfd one = {fd, POLLIN, 0};
        while (!stop_ && poll(&one, 1, 20) == 0) {
        }
        return !stop_;
    }
    void accept_all()
    {
        while (readable(listener_)) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                threads_.emplace_back([this, fd, mode = mode_.load()] { serve(fd, mode); });
        }
    }
    static bool pump(int from, int to)
    {
        char bytes[16384];
        const ssize_t count = recv(from, bytes, sizeof(bytes), 0);
        return count > 0 && send(to, bytes, (size_t)count, MSG_NOSIGNAL) == count;
    }
    void pass(int fd)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons((uint16_t)nm_port_);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int nm = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        pollfd ends[2] = {{fd, POLLIN, 0}, {nm, POLLIN, 0}};
        for (bool open = connect(nm, (sockaddr *)&address, sizeof(address)) == 0; open && !stop_;) {
            if (poll(ends, 2, 20) > 0)
                open = (ends[0].revents == 0 || pump(fd, nm)) && (ends[1].revents == 0 || pump(nm, fd));
        }
        close(nm);
    }
    bool capture(int fd)
    {
        char bytes[16384];
        const ssize_t count = readable(fd) ? recv(fd, bytes, sizeof(bytes), 0) : 0;
        std::lock_guard<std::mutex> guard(lock_);
        captured_.append(bytes, count > 0 ? (size_t)count : 0);
        return count > 0;
    }
    void attack(int fd, LineMode mode)
    {
        static const char k_answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 14\r\n\r\n{\"status\":200}";
        const linger at_once = {1, 0};
        attacked++;
        capture(fd);
        if (mode == LINE_RESET)
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        if (mode == LINE_PLAIN)
            (void)send(fd, k_answer, strlen(k_answer), MSG_NOSIGNAL);
        while (mode != LINE_RESET && capture(fd)) {
        }
    }
    void serve(int fd, LineMode mode)
    {
        mode == LINE_PASS ? pass(fd) : attack(fd, mode);
        close(fd);
    }

    int listener_ = -1;
    int nm_port_;
    std::atomic<LineMode> mode_;
    std::atomic<bool> stop_{false};
    std::thread acceptor_;
    std::vector<std::thread> threads_; // acceptor_'s until it has ended // the first one accepts and adds the others
    std::mutex lock_;
    std::string captured_; // guarded by lock_
};

// Handshakes, and nothing else.
static void expect_nothing_in(const std::string &captured, const TunnelStage &stage)
{
    EXPECT_EQ(0u, captured.find("\x16\x03"));
    std::vector<std::string> forbidden = secrets(stage);
    for (const char *text : {"POST", "HTTP", "dev-api", "SN00000001", "secretKey", "deviceSn", "status", "cfg-result"})
        forbidden.push_back(text);
    for (const std::string &text : forbidden)
        EXPECT_FALSE(text_has(captured, text)) << text;
}

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
    Certificates certs;
    TunnelStage stage;
    stage.nm_options.tls = certs.server("nm");
    stage_prepare(&stage, true);
    verified(&stage, certs);
    config_set(&stage.config, "plugin_config:log_level", "7");
    Line line(nm_sim_port(stage.nm), LINE_PLAIN);
    device_cfg_set(&stage.cfg, "port", std::to_string(line.port - 1));
    ASSERT_TRUE(stage_run(&stage));
    ASSERT_TRUE(agent_wait_log(&stage.agent, k_attacks[0].line)); // the activation
    line.set(LINE_PASS);
    ASSERT_TRUE(agent_wait_log(&stage.agent, "Init cfg successfully") && stage_fast_heartbeat(&stage));

    for (const auto &attack : k_attacks) {
        SCOPED_TRACE(attack.line);
        line.set(attack.mode);
        nm_sim_drop_connections(stage.nm);
        expect_ack(&stage, "false"); // a connection of its own
        EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
        const int before = line.attacked;
        nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
        EXPECT_TRUE(eventually([&] { return line.attacked > before; })); // the kept one
        EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
        line.set(LINE_PASS);
        expect_ack(&stage, "true");
        for (const char *type : k_types) {
            SCOPED_TRACE(type);
            Line end(0, attack.mode);
            EXPECT_TRUE(tunnel_start(&stage, type, "127.0.0.1", end.port - 1));
            EXPECT_TRUE(agent_wait_log(&stage.agent, attack.line));
            EXPECT_TRUE(eventually([&] { return end.attacked > 0; }));
            expect_nothing_in(end.captured(), stage);
        }
    }
    expect_nothing_in(line.captured(), stage);
    EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM));
}

// A pass that cannot verify says why and reaches nobody.
TEST(Verified, NoPassWithoutVerification)
{
    const struct {
        bool https;
        const char *key, *value;
        std::vector<std::string> lines;
    } rows[] = {
        {false, "nm_tls:ca_file", "/dev/null", {"NM's method is 'http', but [nm_tls] of config.ini asks for https!"}},
        {true, "nm_tls:ca_file", "/nowhere/ca", {"[nm_tls] ca_file: '/nowhere/ca' cannot be used: No such file"}},
        {true, "nm_tls:ca-file", "/dev/null", {"Key: nm_tls:ca-file is unknown!", "cannot be used as it stands"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines.back());
        Stage stage;
        stage_prepare(&stage, row.https);
        config_set(&stage.config, row.key, row.value);
        ASSERT_TRUE(stage_run(&stage));
        for (const std::string &line : row.lines)
            EXPECT_TRUE(agent_wait_log(&stage.agent, line)) << line;
        EXPECT_TRUE(agent_wait_log(&stage.agent, "Init config failed, re-initialize!"));
        EXPECT_EQ(0u, nm_sim_transcript(stage.nm).all().size());
        EXPECT_EQ(SIGTERM, agent_stop(&stage.agent, SIGTERM));
    }
}
