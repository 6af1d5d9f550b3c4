// bench - measures the real binary between the simulators and prints a table. Each row starts a stage of its own.
// bench [TEXT ...]: only rows whose name contains one of the texts.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <iniparser.h>
#include <poll.h>
#include <stdexcept>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/stop.h"
#include "sim_cert.h"
#include "sim_socket.h"
#include "transport/connect.h"
#include "transport/socket.h"
#include "transport/tls.h"
#include "tunnel_stage.h"

constexpr int IDLE_S = 20;      // how long the idle figures are observed
constexpr int HANDSHAKES_S = 3; // how long handshakes are counted

static void need(bool holds, const char *what)
{
    if (!holds)
        throw std::runtime_error(what);
}

static std::string number(double value, int digits)
{
    char text[64];
    snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

static void start(TunnelStage *stage, bool https, const DeviceService *web, const DeviceService *telnet)
{
    config_set(&stage->config, "plugin_config:log_level", "6"); // debug lines would be measured too
    need(tunnel_stage_start(stage, https, web, telnet), "agent online");
}

// KiB/s over all ids, each downloading size bytes.
static double web_throughput(bool https, unsigned ids, unsigned size)
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    start(&stage, https, &files, nullptr);
    need(web_open(&stage), "tunnel open");
    const int port = stage.web->client_port();
    std::atomic<uint64_t> got{0};
    const long long begin_ms = monotonic_ms();
    side_by_side(
        ids, [&](size_t i) { got += answer_of(port, std::to_string(size) + " " + std::to_string(i) + "\n").size(); });
    const double seconds = (double)(monotonic_ms() - begin_ms) / 1000;
    need(got == uint64_t(ids) * size, "all bytes");
    return (double)got / 1024 / seconds;
}

static double web_upload(unsigned size)
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    start(&stage, false, &files, nullptr);
    need(web_open(&stage), "tunnel open");
    const std::string request = "+" + std::to_string(size) + "\n" + noise(size, 1);
    const long long begin_ms = monotonic_ms();
    need(answer_of(stage.web->client_port(), request) == "ok", "all bytes");
    return size / 1024.0 / ((double)(monotonic_ms() - begin_ms) / 1000);
}

static std::string k_per_s(double value)
{
    return number(value, 0) + " KiB/s";
}

static std::string median(std::vector<long long> times_ms)
{
    std::sort(times_ms.begin(), times_ms.end());
    return std::to_string(times_ms[times_ms.size() / 2]) + " ms, worst " + std::to_string(times_ms.back()) + " ms";
}

// From a typed byte to its echo, on a network without delay.
static std::string telnet_echo(bool https)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    start(&stage, https, nullptr, &echo);
    need(telnet_open(&stage), "tunnel open");
    int fd = client_connect(stage.telnet->client_port());
    need(fd_send(fd, "k") && fd_read(fd, 1) == "k", "echo"); // waits until NM has passed the set-up
    std::vector<long long> times_ms;
    for (int i = 0; i < 100; i++) {
        const long long typed_ms = monotonic_ms();
        need(fd_send(fd, "k") && fd_read(fd, 1) == "k", "echo");
        times_ms.push_back(monotonic_ms() - typed_ms);
    }
    close(fd);
    return median(times_ms);
}

static std::string start_to_online(bool https)
{
    Stage stage;
    const long long begin_ms = monotonic_ms();
    need(stage_online(&stage, https), "agent online");
    return std::to_string(monotonic_ms() - begin_ms) + " ms";
}

static std::string term_to_end()
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    start(&stage, false, &files, nullptr);
    need(web_open(&stage), "tunnel open");
    const long long begin_ms = monotonic_ms();
    need(agent_stop(&stage.agent, 15) == 15, "end by signal");
    return std::to_string(monotonic_ms() - begin_ms) + " ms";
}

// Sum of the numbers after label, over the lines of a command's output that begin with it.
static long long sum_of(const std::string &command, const std::string &label)
{
    long long sum = 0;
    FILE *lines = popen(command.c_str(), "r");
    char line[256];
    while (fgets(line, sizeof(line), lines)) {
        sum += label.compare(0, label.size(), line, strnlen(line, label.size())) == 0
                   ? strtoll(line + label.size(), nullptr, 10)
                   : 0;
    }
    pclose(lines);
    return sum;
}

static std::string tasks_of(int pid)
{
    return "/proc/" + std::to_string(pid) + "/task/*/";
}

// Voluntary context switches so far, of all threads.
static long long switches(int pid)
{
    return sum_of("cat " + tasks_of(pid) + "status", "voluntary_ctxt_switches:");
}

static double processor_ms(int pid)
{
    return (double)sum_of("cat " + tasks_of(pid) + "schedstat", "") / 1e6;
}

static std::string private_memory(int pid)
{
    const std::string command = "sed -n 's/^Private_[A-Za-z]*://p' /proc/" + std::to_string(pid) + "/smaps_rollup";
    return number((double)sum_of(command, "") / 1024, 2) + " MiB";
}

static std::string idle(bool is_monitored)
{
    Stage stage;
    stage.config = {{"plugin_config:log_level", "6"}};
    if (is_monitored) {
        config_set(&stage.config, "monitor:state_file", "state");
        config_set(&stage.config, "monitor:notify_socket", "none"); // a failing send costs as much
    }
    need(stage_online(&stage, false), "agent online");
    const int pid = stage.agent.pid;
    const double before_ms = processor_ms(pid);
    const long long switches_before = switches(pid);
    sleep(IDLE_S);
    const double share = (processor_ms(pid) - before_ms) / (IDLE_S * 10);
    const auto wakes = (double)(switches(pid) - switches_before);
    return number(share, 3) + " % of a core, " + number(wakes / IDLE_S, 1) + " wake-ups/s";
}

static std::string memory_idle()
{
    Stage stage;
    need(stage_online(&stage, false), "agent online");
    need(nm_sim_wait_for(stage.nm, "udp", 1, k_wait_ms), "heartbeat");
    return private_memory(stage.agent.pid) + ", " + std::to_string(proc_threads(stage.agent.pid)) + " threads";
}

static std::string memory_in_tunnels()
{
    DeviceService files(serve_web_files);
    DeviceService echo(serve_echo);
    TunnelStage stage;
    start(&stage, false, &files, &echo);
    need(web_open(&stage) && telnet_open(&stage), "tunnels open");
    need(answer_of(stage.web->client_port(), "1000000 1\n").size() == 1000000, "all bytes");
    return private_memory(stage.agent.pid) + ", " + std::to_string(proc_threads(stage.agent.pid)) + " threads";
}

// From the device's frame sent to the post received by NM.
static std::string result_latency()
{
    Stage stage;
    need(stage_online(&stage, false), "agent online");
    std::vector<long long> times_ms;
    for (int i = 0; i < 20; i++) {
        const long long sent_ms = monotonic_ms();
        need(stage_result(&stage) == "true", "ack");
        times_ms.push_back(nm_sim_request(stage.nm, "cfgResult", i).at_ms - sent_ms);
    }
    return median(times_ms);
}

// From the handshake received by NM, which answers it with the command, to the frame received by the device.
static std::string command_latency()
{
    Stage stage;
    need(stage_online(&stage, false) && stage_fast_heartbeat(&stage), "agent online");
    std::vector<long long> times_ms;
    for (int i = 0; i < 10; i++) {
        need(stage_command(&stage, R"({"type":"reboot","sessionid":"b"})"), "command");
        need(device_sim_wait_for(stage.device, "reboot", i + 1, k_wait_ms), "frame");
        times_ms.push_back(device_sim_frame(stage.device, "reboot", -1).at_ms -
                           nm_sim_request(stage.nm, "handshake", -1).at_ms);
    }
    return median(times_ms);
}

static std::string stripped_size()
{
    const std::string copy = "/tmp/proxy_plugin.stripped." + std::to_string(getpid());
    const std::string command = std::string("strip -o ") + copy + " " + PLUGIN_BINARY + " && stat -c %s " + copy;
    const long long size = sum_of(command, "");
    unlink(copy.c_str());
    return number((double)size / 1024, 0) + " KiB";
}

// Serves handshakes one after the other, for as long as it lives.
struct HandshakeServer {
    SSL_CTX *ctx;
    int port = 0;
    int listener;
    std::thread thread;

    explicit HandshakeServer(const SimTlsFiles &files)
        : ctx(sim_tls_server(files)), listener(sim_listen_tcp("127.0.0.1", &port)), thread([this] { serve(); })
    {
    }
    ~HandshakeServer()
    {
        shutdown(listener, SHUT_RDWR);
        thread.join();
        close(listener);
        SSL_CTX_free(ctx);
    }
    void serve()
    {
        pollfd ready = {listener, POLLIN, 0};
        for (int fd; poll(&ready, 1, -1) > 0 && (fd = accept(listener, nullptr, nullptr)) >= 0; close(fd)) {
            SSL *ssl = SSL_new(ctx);
            char byte;
            SSL_set_fd(ssl, fd);
            if (SSL_accept(ssl) == 1)
                (void)SSL_read(ssl, &byte, 1);
            SSL_free(ssl);
        }
    }
};

// Puts a config.ini with this text in force for the modules in this process.
static void options_set(const std::string &dir, const std::string &text)
{
    need(device_write_file(dir + "/config.ini", text), "config.ini");
    dictionary *dict = iniparser_load((dir + "/config.ini").c_str());
    need(dict, "config.ini");
    options_read(dict);
    iniparser_freedict(dict);
}

// Full handshakes of the agent's TLS client with a server on the other core, each on a connection of its own.
static double handshake_rate(int port)
{
    const std::string text = std::to_string(port);
    const long long begin_ms = monotonic_ms();
    int count = 0;
    for (; monotonic_ms() - begin_ms < HANDSHAKES_S * 1000; count++) {
        SocketConn conn = tcp_connect("127.0.0.1", text.c_str(), nullptr, nullptr, 0, 0);
        need(conn.socket_fd > 0, "connection");
        conn.ssl = tls_init(conn.socket_fd, "127.0.0.1");
        need(conn.ssl, "handshake");
        socket_close_private(&conn);
    }
    return count * 1000.0 / (double)(monotonic_ms() - begin_ms);
}

static std::string handshakes(bool verified)
{
    char path[] = "/tmp/agent-bench-XXXXXX";
    const std::string dir = mkdtemp(path);
    const SimCert ca = sim_cert_make({"the CA", "", true});
    const SimCert server = sim_cert_make({"NM", "IP:127.0.0.1"}, &ca);
    const SimTlsFiles files = {dir + "/cert", dir + "/key", ""};
    need(device_write_file(dir + "/ca", sim_cert_pem(ca)) && device_write_file(files.cert, sim_cert_pem(server)) &&
             device_write_file(files.key, sim_key_pem(server)),
         "certificates");
    signal(SIGPIPE, SIG_IGN);
    stop_init(nullptr);
    g_log_level = 0;
    options_set(dir, verified ? "[nm_tls]\nca_file = " + dir + "/ca\n" : "[nm_tls]\n");
    HandshakeServer nm(files);
    const double rate = handshake_rate(nm.port);
    for (const char *name : {"/ca", "/cert", "/key", "/config.ini"})
        unlink((dir + name).c_str());
    rmdir(dir.c_str());
    return number(rate, 0) + " a second";
}

// A download gets one frame of up to 10 KiB every 10 ms. Of 32 KiB read at once the last frame is short: about 800
// KiB/s.
static const struct {
    const char *name;
    const char *bound; // what the rules of the protocol allow at best; empty: none
    std::string (*measure)();
} k_rows[] = {
    {"start to online", "", [] { return start_to_online(false); }},
    {"start to online, https", "", [] { return start_to_online(true); }},
    {"device result to NM's post", "", result_latency},
    {"NM's command to the device", "", command_latency},
    {"idle", "0.1 %, 25 wake-ups/s", [] { return idle(false); }},
    {"idle, monitored", "one wake-up/s more", [] { return idle(true); }},
    {"private memory idle", "3 MiB", memory_idle},
    {"private memory, both tunnels", "", memory_in_tunnels},
    {"stripped size", "250 KiB", stripped_size},
    {"SIGTERM to end, tunnel open", "2000 ms", term_to_end},
    {"web download, 1 id", "1000 KiB/s", [] { return k_per_s(web_throughput(false, 1, 4 << 20)); }},
    {"web download, 10 ids", "10 x 1000 KiB/s", [] { return k_per_s(web_throughput(false, 10, 1 << 20)); }},
    {"web download, 1 id, https", "1000 KiB/s", [] { return k_per_s(web_throughput(true, 1, 4 << 20)); }},
    {"web download, 10 ids, https", "10 x 1000 KiB/s", [] { return k_per_s(web_throughput(true, 10, 1 << 20)); }},
    {"web upload, 1 id", "", [] { return k_per_s(web_upload(8 << 20)); }},
    {"telnet echo", "", [] { return telnet_echo(false); }},
    {"telnet echo, https", "", [] { return telnet_echo(true); }},
    {"TLS handshakes", "", [] { return handshakes(false); }},
    {"TLS handshakes, verified", "", [] { return handshakes(true); }},
};

static bool wanted(const char *name, int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (strstr(name, argv[i]))
            return true;
    }
    return argc < 2;
}

int main(int argc, char **argv)
{
    int failures = 0;
    printf("%-30s %-50s %s\n", "what", "measured", "bound");
    for (const auto &row : k_rows) {
        if (!wanted(row.name, argc, argv))
            continue;
        std::string result;
        try {
            result = row.measure();
        } catch (const std::exception &fault) {
            result = std::string("failed: ") + fault.what();
            failures++;
        }
        printf("%-30s %-50s %s\n", row.name, result.c_str(), row.bound);
        fflush(stdout);
    }
    return failures == 0 ? 0 : 1;
}
