// bench - measures the real binary against the simulators and prints a table. A row is a stage of its own.
// bench [TEXT ...]: only rows whose name contains one of the texts.
#include <algorithm>
#include <atomic>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "e2e/tunnel_stage.h"

static const int k_idle_s = 20; // observed for the idle figures

static void need(bool holds, const char *what)
{
    if (!holds) {
        throw std::runtime_error(what);
    }
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

// KiB/s over all ids, each loading size bytes.
static double web_throughput(bool https, unsigned ids, unsigned size)
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    start(&stage, https, &files, nullptr);
    need(web_open(&stage), "tunnel open");
    const int port = stage.web->client_port();
    std::vector<std::thread> browsers;
    std::atomic<uint64_t> got{0};
    const long long begin_ms = monotonic_ms();
    for (unsigned i = 0; i < ids; i++) {
        browsers.emplace_back(
            [&, i] { got += answer_of(port, std::to_string(size) + " " + std::to_string(i) + "\n").size(); });
    }
    for (std::thread &browser : browsers) {
        browser.join();
    }
    const double seconds = static_cast<double>(monotonic_ms() - begin_ms) / 1000;
    need(got == uint64_t(ids) * size, "all bytes");
    return static_cast<double>(got) / 1024 / seconds;
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
    return size / 1024.0 / (static_cast<double>(monotonic_ms() - begin_ms) / 1000);
}

static std::string k_per_s(double value)
{
    return number(value, 0) + " KiB/s";
}

// Median and worst of typed bytes coming back, the wire's delay being nothing.
static std::string telnet_echo(bool https)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    start(&stage, https, nullptr, &echo);
    need(telnet_open(&stage), "tunnel open");
    int fd = client_connect(stage.telnet->client_port());
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    std::vector<long long> times_ms;
    for (int i = 0; i < 100; i++) {
        const long long typed_ms = monotonic_ms();
        need(fd_send(fd, "k") && fd_read(fd, 1) == "k", "echo");
        times_ms.push_back(monotonic_ms() - typed_ms);
    }
    close(fd);
    std::sort(times_ms.begin(), times_ms.end());
    return std::to_string(times_ms[50]) + " ms, worst " + std::to_string(times_ms.back()) + " ms";
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

// Times that the process has left the processor by itself, over all threads.
static long long switches(int pid)
{
    long long sum = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    FILE *list = popen(("cat " + tasks + "/*/status").c_str(), "r");
    char line[256];
    long long count;
    while (fgets(line, sizeof(line), list) != nullptr) {
        sum += sscanf(line, "voluntary_ctxt_switches: %lld", &count) == 1 ? count : 0;
    }
    pclose(list);
    return sum;
}

static std::string idle()
{
    Stage stage;
    need(stage_online(&stage, false), "agent online");
    const int cpu_before_ms = proc_cpu_ms(stage.agent.pid);
    const long long switches_before = switches(stage.agent.pid);
    sleep(k_idle_s);
    const double cpu_ms = proc_cpu_ms(stage.agent.pid) - cpu_before_ms;
    const auto wakes = static_cast<double>(switches(stage.agent.pid) - switches_before);
    return number(cpu_ms / 10 / k_idle_s, 2) + " % CPU, " + number(wakes / k_idle_s, 0) + " wake-ups/s, " +
           number(proc_rss_kib(stage.agent.pid) / 1024.0, 1) + " MiB resident";
}

// A slot reads 32 KiB and sends them as four frames, 10 ms apart: 800 KiB/s with the default settings.
static const struct {
    const char *name;
    const char *bound; // what the rules of the protocol allow at best; empty: none
    std::string (*measure)();
} k_rows[] = {
    {"start to online", "", [] { return start_to_online(false); }},
    {"start to online, https", "", [] { return start_to_online(true); }},
    {"idle", "", idle},
    {"SIGTERM to end, tunnel open", "2000 ms", term_to_end},
    {"web download, 1 id", "800 KiB/s", [] { return k_per_s(web_throughput(false, 1, 4 << 20)); }},
    {"web download, 10 ids", "10 x 800 KiB/s", [] { return k_per_s(web_throughput(false, 10, 1 << 20)); }},
    {"web download, 1 id, https", "800 KiB/s", [] { return k_per_s(web_throughput(true, 1, 4 << 20)); }},
    {"web download, 10 ids, https", "10 x 800 KiB/s", [] { return k_per_s(web_throughput(true, 10, 1 << 20)); }},
    {"web upload, 1 id", "", [] { return k_per_s(web_upload(8 << 20)); }},
    {"telnet echo", "", [] { return telnet_echo(false); }},
    {"telnet echo, https", "", [] { return telnet_echo(true); }},
};

static bool wanted(const char *name, int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (strstr(name, argv[i]) != nullptr) {
            return true;
        }
    }
    return argc < 2;
}

int main(int argc, char **argv)
{
    int failures = 0;
    printf("%-30s %-50s %s\n", "what", "measured", "bound");
    for (const auto &row : k_rows) {
        if (!wanted(row.name, argc, argv)) {
            continue;
        }
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
