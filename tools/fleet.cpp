// Many real agents with their simulated devices against one NM on loopback: how long until all are online, what NM sees
// of them, what an agent costs, and how they come back after an outage of NM. scripts/fleet runs it.
#include <algorithm>
#include <atomic>
#include <math.h>
#include <memory>
#include <mutex>
#include <set>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "harness.h"

constexpr int IDLE_S = 60;
constexpr int OUTAGE_S = 60;
constexpr int LIMIT_S = 600; // of each wait

// One device with its agent.
struct Box {
    std::string serial;
    DeviceSim *device = nullptr;
    AgentProcess agent;

    ~Box()
    {
        (void)agent_stop(&agent, SIGTERM);
        device_sim_stop(device);
        if (!agent.dir.empty() && system(("rm -rf " + agent.dir).c_str()) != 0)
            fprintf(stderr, "%s is left\n", agent.dir.c_str());
    }
};

// What NM has received since the last reset. Its loop thread writes.
struct Seen {
    std::mutex lock;
    long long since_ms = 0;
    int requests = 0, datagrams = 0;
    std::set<std::string> joined; // serial numbers that were activated
    std::set<std::string> heard;  // that were heard at all
    std::vector<int> requests_by_s;
};
static Seen s_seen;

static void request_note(const NmRequest &request)
{
    std::lock_guard<std::mutex> guard(s_seen.lock);
    const size_t second = (size_t)std::max(0LL, (request.at_ms - s_seen.since_ms) / 1000);
    if (s_seen.requests_by_s.size() <= second)
        s_seen.requests_by_s.resize(second + 1);
    s_seen.requests_by_s[second]++;
    s_seen.requests += request.name != "udp";
    s_seen.datagrams += request.name == "udp";
    s_seen.heard.insert(request.serial);
    if (request.name == "active")
        s_seen.joined.insert(request.serial);
}

static void seen_reset()
{
    std::lock_guard<std::mutex> guard(s_seen.lock);
    s_seen.since_ms = monotonic_ms();
    s_seen.requests = s_seen.datagrams = 0;
    s_seen.joined.clear();
    s_seen.heard.clear();
    s_seen.requests_by_s.clear();
}

static size_t seen_count(std::set<std::string> Seen::*serials)
{
    std::lock_guard<std::mutex> guard(s_seen.lock);
    return (s_seen.*serials).size();
}

static void row(const std::string &what, const std::string &measured)
{
    printf("%-52s %s\n", what.c_str(), measured.c_str());
    fflush(stdout);
}

static std::string seconds_since(long long begin_ms)
{
    char text[32];
    snprintf(text, sizeof(text), "%.1f s", (double)(monotonic_ms() - begin_ms) / 1000);
    return text;
}

static std::unique_ptr<Box> box_make(NmSim *nm, int number, int spread_s)
{
    auto box = std::make_unique<Box>();
    char dir[] = "/tmp/fleet-XXXXXX";
    box->agent.dir = mkdtemp(dir);
    box->serial = "SN" + std::to_string(10000000 + number);
    box->device = device_sim_start(DeviceOptions());
    DeviceCfg cfg = device_cfg_default(box->agent.dir, false, nm_sim_port(nm), device_sim_port(box->device));
    device_cfg_set_text(&cfg, "dev-sn", box->serial);
    device_cfg_set_text(&cfg, "log_path", "");
    const std::string config =
        "[plugin_config]\nlog_std = 1\nlog_level = 3\nplugin_eth = lo\nstart_spread_s = " + std::to_string(spread_s) +
        "\n[device_info]\ninit_cfg = " + box->agent.dir + "/init\n";
    if (!device_write_all(box->agent.dir, cfg) || !device_write_file(box->agent.dir + "/config.ini", config))
        return nullptr;
    return box;
}

using Boxes = std::vector<std::unique_ptr<Box>>;

static bool all_come(const Boxes &boxes, std::set<std::string> Seen::*serials)
{
    return eventually([&] { return seen_count(serials) >= boxes.size(); }, LIMIT_S * 1000);
}

static void rates_row(const char *when, size_t boxes, double span_s)
{
    std::lock_guard<std::mutex> guard(s_seen.lock);
    const double scale = 1000.0 / (double)boxes / span_s;
    const int peak =
        s_seen.requests_by_s.empty() ? 0 : *std::max_element(s_seen.requests_by_s.begin(), s_seen.requests_by_s.end());
    char text[128];
    snprintf(text, sizeof(text), "%.1f requests/s, %.1f datagrams/s, at most %.0f in a second", s_seen.requests * scale,
             s_seen.datagrams * scale, peak * 1000.0 / (double)boxes);
    row(std::string(when) + ", per 1,000 devices", text);
}

static void cost_row(const Boxes &boxes)
{
    long long cpu_ms = 0, private_kib = 0;
    int most_kib = 0;
    for (const auto &box : boxes)
        cpu_ms -= proc_cpu_ms(box->agent.pid);
    sleep(IDLE_S);
    for (const auto &box : boxes) {
        cpu_ms += proc_cpu_ms(box->agent.pid);
        const int kib = proc_private_kib(box->agent.pid);
        private_kib += kib;
        most_kib = std::max(most_kib, kib);
    }
    char text[128];
    snprintf(text, sizeof(text), "%.3f %% of a core, %lld KiB private, at most %d",
             (double)cpu_ms / (double)boxes.size() / IDLE_S / 10, private_kib / (long long)boxes.size(), most_kib);
    row("an agent, idle", text);
}

static bool join(Boxes *boxes, NmSim *nm, int count, int spread_s)
{
    for (int i = 0; i < count; i++) {
        boxes->push_back(box_make(nm, i, spread_s));
        if (!boxes->back())
            return false;
    }
    seen_reset();
    const long long begin_ms = monotonic_ms();
    for (const auto &box : *boxes) {
        if (!agent_start(&box->agent))
            return false;
    }
    row("all started", seconds_since(begin_ms));
    if (!all_come(*boxes, &Seen::joined))
        return false;
    row("all online", seconds_since(begin_ms));
    rates_row("joining", boxes->size(), (double)(monotonic_ms() - begin_ms) / 1000);
    return true;
}

static bool live(const Boxes &boxes)
{
    seen_reset();
    cost_row(boxes);
    rates_row("idle", boxes.size(), IDLE_S);
    return seen_count(&Seen::heard) == boxes.size();
}

static bool outlive(const Boxes &boxes, NmSim *nm)
{
    nm_sim_absent(nm);
    sleep(OUTAGE_S);
    seen_reset();
    const long long begin_ms = monotonic_ms();
    if (!nm_sim_return(nm) || !all_come(boxes, &Seen::heard))
        return false;
    row("NM away for a minute: all heard again", seconds_since(begin_ms));
    rates_row("coming back", boxes.size(), (double)(monotonic_ms() - begin_ms) / 1000);
    return true;
}

// Every agent at once is told to start anew.
static bool restart(const Boxes &boxes, NmSim *nm)
{
    seen_reset();
    const long long begin_ms = monotonic_ms();
    for (const auto &box : boxes)
        nm_sim_ask_restart(nm, box->serial);
    if (!all_come(boxes, &Seen::joined))
        return false;
    row("told to start anew: all online", seconds_since(begin_ms));
    rates_row("starting anew", boxes.size(), (double)(monotonic_ms() - begin_ms) / 1000);
    return true;
}

static bool run(int count, int spread_s)
{
    NmOptions options;
    options.watch = request_note;
    NmSim *nm = nm_sim_start(options);
    printf("\n%d devices, start_spread_s = %d\n", count, spread_s);
    bool is_well = nm != nullptr;
    {
        Boxes boxes;
        is_well =
            is_well && join(&boxes, nm, count, spread_s) && live(boxes) && outlive(boxes, nm) && restart(boxes, nm);
    }
    const std::string wrong = nm ? nm_sim_wrong(nm) : "";
    nm_sim_stop(nm);
    row("NM found wrong", wrong.empty() ? "nothing" : wrong.substr(0, 500));
    if (!is_well)
        row("FAILED", "not all devices came");
    return is_well && wrong.empty();
}

int main(int argc, char **argv)
{
    const int count = argc > 1 ? atoi(argv[1]) : 200;
    const int spread_s = argc > 2 ? atoi(argv[2]) : 30;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (count < 1 || spread_s < 0) {
        fprintf(stderr, "usage: fleet [DEVICES [SPREAD_S]]\n");
        return 2;
    }
    bool is_well = run(count, 0);
    is_well = (spread_s == 0 || run(count, spread_s)) && is_well;
    return is_well ? 0 : 1;
}
