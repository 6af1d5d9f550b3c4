// soak - the real binary between the simulators for minutes or hours: all traffic at once, faults at random, and at the
// end an account of every result that the device has sent.
// soak [MINUTES [SEED [http|https [TEXT]]]]: with TEXT only faults that have it in their names
//
// The rule of the account: each result (or alarm) of the device gets one ack. One that is true is right only if NM has
// got the result byte for byte; one that is false ends the matter. NM gets nothing twice. What was without an ack when
// a fault cut the device link may stay without one, or get lost; such losses are counted apart.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <poll.h>
#include <random>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "json_text.h"
#include "tunnel_stage.h"

static const int k_last_phase_ms = 45000; // without faults
static const int k_warm_up_ms = 60000;    // until every buffer and stack has been used
static const int k_return_ms = 90000;     // for the way back after a fault: some bring-up retries and a heartbeat
static const int k_rss_growth_kib = 1024; // of the highest figure, in the second half of the time against the first
static const int k_rest_ms = 4000;        // of a device in the middle of an upload
static const int k_stop_ms = 2000;
static const int k_result_max = 1 << 20;
static const int k_device_buffer = 4096; // of its services' sockets, in bytes
static const int k_depth_max = 900;      // of what a message nests
static const int k_waiting_max = 6;      // results without an ack; a device waits before it sends more

struct Result {
    std::string name; // NM's path
    std::string body; // as it has to arrive; emptied when it has
    int arrivals = 0;
    int acks = 0;
    bool ack_true = false;
    bool cut = false; // a fault has cut the device link while it waited for its ack
};

using Random = std::mt19937;

static TunnelStage *s_stage;
static const char *s_only = "";
static long long s_begin_ms;
static std::atomic<bool> s_traffic{true}; // results and tunnels go on
static std::atomic<bool> s_torn{false};   // a frame may have been cut: the agent waits for its rest
static std::atomic<bool> s_online{false}; // what the device was told last
static std::atomic<int> s_epoch{1};       // even: a fault, or on the way back; odd: calm

static std::mutex s_lock;               // guards what follows
static std::map<int, Result> s_results; // by the number that stands in them
static std::map<std::string, int> s_counts;
static std::string s_probe; // session of the last command that the device has got
static int s_problems;

static void say(const std::string &line)
{
    printf("%6.1f s  %s\n", (double)(monotonic_ms() - s_begin_ms) / 1000, line.c_str());
    fflush(stdout);
}

static void problem_locked(const std::string &text)
{
    s_problems++;
    say("WRONG: " + json_one_line(text, 400));
}

static void problem(const std::string &text)
{
    std::lock_guard<std::mutex> guard(s_lock);
    problem_locked(text);
}

static void check(bool holds, const std::string &what)
{
    holds ? say("ok: " + what) : problem(what);
}

static void count(const std::string &what)
{
    std::lock_guard<std::mutex> guard(s_lock);
    s_counts[what]++;
}

static void pause_ms(int ms)
{
    poll(nullptr, 0, ms);
}

static int pick(Random *random, int from, int to)
{
    return std::uniform_int_distribution<int>(from, to)(*random);
}

// ---- the account

static Result *result_locked(const std::string &text, const char *mark)
{
    const size_t at = text.find(mark);
    const auto found = s_results.find(at == std::string::npos ? -1 : atoi(text.c_str() + at + strlen(mark)));
    if (found == s_results.end()) {
        problem_locked("nobody has sent the result of: " + text);
        return nullptr;
    }
    return &found->second;
}

static void request_locked(const NmRequest &request)
{
    s_counts["NM " + request.name]++;
    if (!request.wrong.empty())
        problem_locked(request.name + ": " + request.wrong);
    const bool alarm = request.name == "alarm";
    if (!alarm && request.name.find("Result") == std::string::npos)
        return;
    Result *result = result_locked(request.body, alarm ? "\"id\":\t" : "\"sessionid\":\"");
    if (result && ++result->arrivals == 1) {
        s_counts["arrived"]++;
        if (request.name != result->name || request.body != result->body)
            problem_locked("changed on its way to NM: " + result->body.substr(0, 100));
        result->body.clear();
    }
}

static void frame_locked(const DeviceFrame &frame)
{
    s_counts["device " + frame.type]++;
    if (!frame.wrong.empty())
        problem_locked(frame.type + ": " + frame.wrong);
    if (frame.type == "online-status-notify") {
        s_online = frame.text.find("\"online\"") != std::string::npos;
    } else if (frame.type == "reboot") {
        s_probe = json_text(json_parse(frame.text).get(), "sessionid");
    } else if (frame.type.find("-ack") != std::string::npos) {
        Result *result = result_locked(frame.text, frame.type == "alarm-ack" ? "\"msgId\":" : "\"sessionid\":\"");
        if (result) {
            result->acks++;
            result->ack_true = frame.text.find("\"result\":true") != std::string::npos;
            s_counts[result->ack_true ? "acked true" : "acked false"]++;
        }
    }
}

static void account()
{
    const std::vector<DeviceFrame> frames = device_sim_transcript(s_stage->device).take();
    const std::vector<NmRequest> requests = nm_sim_transcript(s_stage->nm).take();
    std::lock_guard<std::mutex> guard(s_lock);
    std::for_each(requests.begin(), requests.end(), request_locked);
    std::for_each(frames.begin(), frames.end(), frame_locked);
}

static int waiting()
{
    std::lock_guard<std::mutex> guard(s_lock);
    return (int)std::count_if(s_results.begin(), s_results.end(),
                              [](const auto &row) { return row.second.acks == 0 && !row.second.cut; });
}

// The device link is about to be cut: what is on its way may get lost, and a frame may stay behind in pieces.
static void cut_device(const std::function<void()> &cut)
{
    std::lock_guard<std::mutex> guard(s_lock);
    for (auto &row : s_results) {
        if (row.second.acks == 0 && !row.second.cut) {
            row.second.cut = true;
            s_counts["cut"]++;
        }
    }
    s_torn = true;
    cut();
}

static void account_judge()
{
    std::lock_guard<std::mutex> guard(s_lock);
    for (const auto &row : s_results) {
        const Result &result = row.second;
        const std::string what = result.name + " " + std::to_string(row.first);
        if (result.arrivals > 1 || result.acks > 1)
            problem_locked(what + ": twice at NM, or acknowledged twice");
        else if (result.ack_true && result.arrivals == 0)
            problem_locked(what + ": acknowledged, but NM has not got it");
        else if (result.acks == 0 && !result.cut)
            problem_locked(what + ": no ack, " + (result.arrivals > 0 ? "though NM has got it" : "lost"));
        s_counts["lost by a cut"] += result.acks == 0 && result.arrivals == 0 && result.cut;
    }
}

// ---- the device

// The frame's text; what NM has to get goes to *result.
static std::string result_make(int number, Random *random, Result *result)
{
    static const char *const k_kinds[][2] = {
        {"upgrade-result", "upgradeResult"}, {"cfg-result", "cfgResult"}, {"backup-result", "backupResult"}};
    const std::string id = std::to_string(number);
    const auto depth = (size_t)pick(random, 1, k_depth_max);
    const std::string nest = std::string(depth, '[') + std::string(depth, ']');
    const int most = pick(random, 0, 9) == 0 ? k_result_max - 2 * k_depth_max - 200 : 2000;
    std::string data = noise((size_t)pick(random, 0, most), (*random)());
    std::transform(data.begin(), data.end(), data.begin(), [](unsigned char byte) { return '0' + byte % 43; });
    if (pick(random, 0, 4) == 0) {
        result->name = "alarm";
        result->body = "[{\n\t\"id\":\t" + id + ",\n\t\"data\":\t\"" + data + "\",\n\t\"nest\":\t" + nest + "\n}]";
        return "{\"type\":\"alarm-info\",\"msgId\":" + id + ",\"payload\":{\"id\":" + id + ",\"data\":\"" + data +
               "\",\"nest\":" + nest + "}}";
    }
    const auto &kind = k_kinds[pick(random, 0, 2)];
    result->name = kind[1];
    result->body = std::string("{\"type\":\"") + kind[0] + "\",\"sessionid\":\"" + id + "\",\"data\":\"" + data +
                   "\",\"nest\":" + nest + "}";
    return result->body;
}

// Sends and enters it in the account; the lock keeps a cut from coming in between.
static void result_send(int number, Random *random)
{
    Result result;
    const std::string text = result_make(number, random, &result);
    std::lock_guard<std::mutex> guard(s_lock);
    if (!s_torn && device_sim_send(s_stage->device, text)) {
        s_results[number] = result;
        s_counts["sent"]++;
    }
}

// A frame that was cut swallows what comes after it, so the device sends padding until it is understood again.
static void resynchronise()
{
    const std::string ping = std::string(65536, ' ') + "{\"type\":\"ping\"}";
    const int pongs = device_sim_count(s_stage->device, "pong");
    if (device_sim_send(s_stage->device, ping) && device_sim_wait_for(s_stage->device, "pong", pongs + 1, 1000))
        s_torn = false;
    pause_ms(300);
}

static void service_record_add(int n)
{
    const std::string path = s_stage->agent.dir + "/service";
    if (n % 20 == 0)
        device_write_file(path, ""); // in timing mode it is the device that empties it
    device_service_add(path, device_service_record(n));
}

static void device_run(unsigned seed)
{
    Random random(seed);
    for (int n = 1; s_traffic; n++) {
        while (s_traffic && (s_torn || waiting() >= k_waiting_max))
            s_torn ? resynchronise() : pause_ms(20);
        result_send(n, &random);
        if (n % 5 == 0 && !s_torn) {
            device_sim_send(s_stage->device, "{\"type\":\"call-history\",\"payload\":[" + std::to_string(n) + "]}");
            device_sim_send(s_stage->device, "{\"type\":\"ping\"}");
            service_record_add(n / 5);
        }
        pause_ms(pick(&random, 20, 300));
    }
}

// ---- the tunnels

// What was done wholly between faults has to be whole.
static bool calm_since(int epoch)
{
    return epoch % 2 == 1 && s_epoch == epoch;
}

// What a fault has cut short may end early, but has no hole and nothing foreign in it. True when it is whole.
static bool judge_piece(const std::string &what, const std::string &whole, const std::string &got, int epoch)
{
    const auto differs = std::mismatch(got.begin(), got.end(), whole.begin(), whole.end());
    if (differs.first != got.end())
        problem(what + ": wrong from byte " + std::to_string(differs.first - got.begin()) + " on");
    else if (got != whole && calm_since(epoch))
        problem(what + ": " + std::to_string(got.size()) + " of " + std::to_string(whole.size()) + " bytes");
    count((got == whole ? "whole " : "cut ") + what);
    return got == whole;
}

static void download(int size, unsigned seed)
{
    const int epoch = s_epoch;
    const std::string request = std::to_string(size) + " " + std::to_string(seed) + "\n";
    judge_piece("download", noise((size_t)size, seed), answer_of(s_stage->web->client_port(), request), epoch);
}

// The device takes the first half, and rests for that long before the second.
static void upload(int size, int rest_ms)
{
    const int epoch = s_epoch;
    const std::string request = "+" + std::to_string(size) + " " + std::to_string(size / 2 + 1) + " " +
                                std::to_string(rest_ms) + "\n" + noise((size_t)size, 1);
    const std::string answer = answer_of(s_stage->web->client_port(), request);
    // The device's service finds a cut upload spoilt too, and may get that answer through.
    judge_piece("upload", "ok", answer == "spoilt" && !calm_since(epoch) ? "" : answer, epoch);
}

// A page whose twelve uploads stand still, then one of twelve downloads; the first is closed only then.
static void page_reload(Random *random)
{
    const int epoch = s_epoch;
    std::vector<int> before, after;
    std::vector<std::string> whole;
    for (int i = 0; i < 12; i++) {
        before.push_back(client_connect(s_stage->web->client_port()));
        fd_send(before.back(), "+1000\n");
    }
    pause_ms(100); // ten of them have the agent's connections then
    for (int i = 0; i < 12; i++) {
        const int size = pick(random, 1, 30000);
        after.push_back(client_connect(s_stage->web->client_port()));
        fd_send(after.back(), std::to_string(size) + " " + std::to_string(i) + "\n");
        whole.push_back(noise((size_t)size, (unsigned)i));
    }
    std::for_each(before.begin(), before.end(), close);
    for (size_t i = 0; i < after.size(); i++) {
        judge_piece("reload", whole[i], fd_read_all(after[i]), epoch);
        close(after[i]);
    }
}

static void web_burst(Random *random)
{
    if (pick(random, 0, 4) == 0) {
        page_reload(random);
        return;
    }
    std::vector<std::thread> browsers;
    for (int i = pick(random, 1, 6); i > 0; i--) {
        const int size = pick(random, 1, 300000);
        const unsigned seed = (*random)();
        i % 3 == 1 ? browsers.emplace_back(upload, size, seed % 4 == 0 ? k_rest_ms : 0)
                   : browsers.emplace_back(download, size, seed);
    }
    for (std::thread &browser : browsers)
        browser.join();
}

static void telnet_burst(Random *random)
{
    const int epoch = s_epoch;
    const int fd = client_connect(s_stage->telnet->client_port());
    bool whole = true;
    for (int i = 0; i < 20 && whole; i++) {
        const std::string keys =
            noise((size_t)pick(random, 1, i == 10 ? 30000 : 3000), (*random)()); // a paste among them
        whole = judge_piece("echo", keys, fd_send(fd, keys) ? fd_read(fd, keys.size()) : "", epoch);
    }
    close(fd);
    if (!whole)
        s_stage->telnet->close_agent(); // a session in the middle of an answer is of no use to the next client
}

static bool telnet_ready()
{
    const uint32_t before = s_stage->telnet->stats().inits;
    return telnet_command(s_stage, "start") && s_stage->telnet->wait(k_wait_ms, [&](const TelnetTunnelStats &stats) {
        return stats.authenticated && stats.inits > before;
    });
}

struct TunnelUse {
    const char *name;
    bool (*open)();
    bool (*stands)();
    void (*burst)(Random *random);
    bool (*close)();
};

static const TunnelUse k_web_use = {"web", [] { return web_open(s_stage); },
                                    [] { return s_stage->web->stats().authenticated; }, web_burst,
                                    [] { return web_close(s_stage); }};
static const TunnelUse k_telnet_use = {"telnet", telnet_ready, [] { return s_stage->telnet->stats().authenticated; },
                                       telnet_burst, [] { return telnet_close(s_stage); }};

// Opens the tunnel, uses it for a while, closes it, again and again; faults end it earlier.
static void tunnel_run(const TunnelUse &use, unsigned seed)
{
    Random random(seed);
    while (s_traffic) {
        int epoch = s_epoch;
        if (!use.open() && calm_since(epoch))
            problem(std::string(use.name) + " tunnel does not open");
        for (int i = pick(&random, 2, 12); i > 0 && s_traffic && use.stands(); i--) {
            use.burst(&random);
            pause_ms(pick(&random, 0, 1000));
        }
        epoch = s_epoch;
        if (!use.close() && calm_since(epoch))
            problem(std::string(use.name) + " tunnel does not close");
        pause_ms(pick(&random, 0, 3000));
    }
}

// ---- the faults

// name: of the requests, "" for all, "udp" for the datagrams.
static void nm_misbehaves(const char *name, NmFaultKind kind, int delay_ms, int duration_ms)
{
    NmFault fault;
    fault.kind = kind;
    fault.delay_ms = delay_ms;
    fault.text = "not now";
    nm_sim_set_fault(s_stage->nm, name, fault);
    pause_ms(duration_ms);
    nm_sim_clear_faults(s_stage->nm);
}

static void nm_restarts(int duration_ms)
{
    nm_sim_absent(s_stage->nm);
    pause_ms(duration_ms);
    if (!nm_sim_return(s_stage->nm))
        problem("NM cannot listen again");
}

static void device_restarts(int duration_ms)
{
    cut_device([] { device_sim_absent(s_stage->device); });
    pause_ms(duration_ms);
    if (!device_sim_return(s_stage->device))
        problem("the device cannot listen again");
}

static void device_drops_in_frame(int)
{
    cut_device([] {
        device_sim_send_raw(s_stage->device, device_frame_bytes(100000, std::string(60000, 'x')));
        pause_ms(300);
        device_sim_drop(s_stage->device);
    });
}

static void nm_asks_for_restart(int)
{
    nm_sim_ask_restart(s_stage->nm);
    pause_ms(3000); // a heartbeat takes it along
}

static void tunnels_are_cut(int)
{
    s_stage->web->close_agent(true);
    s_stage->telnet->close_agent(true);
}

static void tunnels_are_stopped(int)
{
    web_command(s_stage, "stop");
    telnet_command(s_stage, "stop");
}

static void nm_reads_slowly(int duration_ms)
{
    s_stage->web->read_slowly(20000);
    s_stage->telnet->read_slowly(20000);
    pause_ms(duration_ms);
    s_stage->web->read_slowly(0);
    s_stage->telnet->read_slowly(0);
}

// Connections are taken and hear nothing, not even of TLS: NM's own and both tunnels'.
static void nm_is_mute(int duration_ms)
{
    NmFault silence;
    silence.kind = NM_FAULT_SILENCE;
    nm_sim_set_fault(s_stage->nm, "accept", silence);
    nm_sim_drop_connections(s_stage->nm);
    const std::initializer_list<TunnelSim *> tunnels = {s_stage->web.get(), s_stage->telnet.get()};
    for (TunnelSim *tunnel : tunnels) {
        tunnel->set_mute(true);
        tunnel->close_agent();
    }
    pause_ms(duration_ms);
    nm_sim_clear_faults(s_stage->nm);
    nm_sim_drop_connections(s_stage->nm); // a handshake waits for its answer without an end
    for (TunnelSim *tunnel : tunnels) {
        tunnel->set_mute(false);
        tunnel->close_agent();
    }
}

static const struct Fault {
    const char *name;
    void (*run)(int duration_ms);
    bool harmless = false; // all has to be whole as in calm
} k_faults[] = {
    {"NM takes and is mute", nm_is_mute},
    {"NM reads the tunnels slowly", nm_reads_slowly, true},
    {"NM is silent", [](int ms) { nm_misbehaves("", NM_FAULT_SILENCE, 0, ms); }},
    {"NM refuses", [](int ms) { nm_misbehaves("", NM_FAULT_REFUSE, 0, ms); }},
    {"NM answers late", [](int ms) { nm_misbehaves("", NM_FAULT_NONE, 1500, ms); }},
    {"NM answers with junk", [](int ms) { nm_misbehaves("", NM_FAULT_JUNK, 0, ms); }},
    {"NM closes at once", [](int ms) { nm_misbehaves("", NM_FAULT_CLOSE, 0, ms); }},
    {"UDP is silent", [](int ms) { nm_misbehaves("udp", NM_FAULT_SILENCE, 0, ms); }},
    {"NM restarts", nm_restarts},
    {"NM asks for a new bring-up", nm_asks_for_restart},
    {"the device restarts", device_restarts},
    {"the device drops in mid-frame", device_drops_in_frame},
    {"the tunnels are cut", tunnels_are_cut},
    {"the tunnels are stopped", tunnels_are_stopped},
};

// Every bring-up starts with the periods of its own; NM sets those of the soak again.
static void nm_sets_periods()
{
    nm_sim_queue(s_stage->nm, nm_command_trigger(1));
    NmStrategy strategy;
    strategy.action = "start";
    strategy.system_period_s = 2;
    strategy.mode = "timing";
    strategy.period_s = 3;
    nm_sim_queue(s_stage->nm, nm_command_device_status(strategy));
}

// A command has come through to the device, which is understood and knows the agent online.
static bool command_passes(int wait_ms)
{
    static int s_number = 0;
    const std::string session = "probe-" + std::to_string(++s_number);
    nm_sim_queue(s_stage->nm, nm_command_forward("reboot", session));
    const auto passed = [&] {
        std::lock_guard<std::mutex> guard(s_lock);
        return s_probe == session && !s_torn && s_online;
    };
    return eventually(passed, wait_ms);
}

// All kinds in turn, in an order that chance makes anew each time.
static void faults_run(unsigned seed, long long end_ms)
{
    Random random(seed);
    std::vector<Fault> left;
    while (monotonic_ms() < end_ms) {
        if (left.empty()) {
            std::copy_if(std::begin(k_faults), std::end(k_faults), std::back_inserter(left),
                         [](const Fault &fault) { return strstr(fault.name, s_only); });
            std::shuffle(left.begin(), left.end(), random);
        }
        if (left.empty())
            return; // none has the text
        const Fault fault = left.back();
        left.pop_back();
        s_epoch += !fault.harmless;
        count("faults");
        say(std::string("fault: ") + fault.name);
        fault.run(pick(&random, 2000, 12000));
        nm_sets_periods();
        if (!command_passes(k_return_ms / 2) && !command_passes(k_return_ms / 2)) // the first may meet an ending link
            problem(std::string("not back after: ") + fault.name);
        s_epoch += !fault.harmless;
        pause_ms(pick(&random, 2000, 12000)); // the longest pieces of calm traffic need some
    }
}

// ---- the process

struct Usage {
    int rss_kib, descriptors, threads, cpu_ms;
};

static Usage usage_now()
{
    const int pid = s_stage->agent.pid;
    return {proc_rss_kib(pid), proc_descriptors(pid), proc_threads(pid), proc_cpu_ms(pid)};
}

static std::string usage_text(const Usage &usage)
{
    return "RSS " + std::to_string(usage.rss_kib) + " KiB, fds " + std::to_string(usage.descriptors) + ", threads " +
           std::to_string(usage.threads) + ", CPU " + std::to_string(usage.cpu_ms) + " ms";
}

static void progress(const Usage &usage)
{
    std::string line = "results";
    {
        std::lock_guard<std::mutex> guard(s_lock);
        for (const char *name : {"sent", "arrived", "acked true", "acked false", "cut"})
            line += std::string(" ") + name + " " + std::to_string(s_counts[name]) + ",";
    }
    say(line + " " + usage_text(usage));
}

// Highest resident size in either half of the time behind the warm-up.
struct Memory {
    int first_kib = 0, second_kib = 0;
};

// Keeps the account and the figures until the time is over or the agent has ended.
static Memory watch(long long end_ms)
{
    Memory memory;
    const long long warm_ms = s_begin_ms + k_warm_up_ms;
    long long next_ms = monotonic_ms();
    for (long long now_ms; (now_ms = monotonic_ms()) < end_ms; pause_ms(50)) {
        account();
        const Usage usage = usage_now();
        if (usage.threads < 0) {
            problem("the agent has ended");
            break;
        }
        if (now_ms > warm_ms) {
            int &highest = now_ms < (warm_ms + end_ms) / 2 ? memory.first_kib : memory.second_kib;
            highest = std::max(highest, usage.rss_kib);
        }
        if (now_ms >= next_ms) {
            progress(usage);
            next_ms += 10000;
        }
    }
    return memory;
}

// The account goes on while the threads come to their ends.
static void join_all(std::vector<std::thread> *threads)
{
    std::atomic<bool> joined{false};
    std::thread joiner([&] {
        for (std::thread &thread : *threads)
            thread.join();
        joined = true;
    });
    for (; !joined; pause_ms(20))
        account();
    joiner.join();
}

static bool start(bool https, const DeviceService &files, const DeviceService &echo)
{
    stage_prepare(s_stage, https);
    config_set(&s_stage->config, "plugin_config:log_std", "0"); // to the ring of files, as on a device
    config_set(&s_stage->config, "plugin_config:log_level", "6");
    device_cfg_set(&s_stage->cfg, "web_port", std::to_string(files.port()));
    device_cfg_set(&s_stage->cfg, "telnet_port", std::to_string(echo.port()));
    device_cfg_set(&s_stage->cfg, "max_dev_msg_size", "1100"); // KiB: the largest result and its frame
    device_cfg_set(&s_stage->cfg, "dev_msg_buffer_size", "4096");
    stage_write(*s_stage);
    s_stage->options.tls = https;
    s_stage->web = std::make_unique<WebTunnelSim>(s_stage->options);
    s_stage->telnet = std::make_unique<TelnetTunnelSim>(s_stage->options);
    if (!agent_start(&s_stage->agent) || !device_sim_wait_for(s_stage->device, "online-status-notify", 1, k_wait_ms))
        return false;
    nm_sets_periods();
    return nm_sim_wait_for(s_stage->nm, "runstatus", 2, k_wait_ms); // the periods are in force
}

static void end_checks(const Usage &idle, const Memory &memory)
{
    const auto drained = [] {
        account();
        return waiting() == 0 && nm_sim_queued(s_stage->nm) == 0;
    };
    check(eventually(drained), "every result has its ack, every command is taken");
    const int pongs = device_sim_count(s_stage->device, "pong");
    device_sim_send(s_stage->device, "{\"type\":\"ping\"}");
    check(device_sim_wait_for(s_stage->device, "pong", pongs + 1, k_wait_ms) && s_online,
          "online, and hears the device");
    const auto returned = [&] {
        const Usage now = usage_now();
        return now.descriptors <= idle.descriptors && now.threads <= idle.threads;
    };
    check(eventually(returned), "descriptors and threads as at first");
    say("idle at first: " + usage_text(idle));
    say("idle at last: " + usage_text(usage_now()));
    check(memory.second_kib - memory.first_kib <= k_rss_growth_kib,
          "highest RSS of the first half " + std::to_string(memory.first_kib) + " KiB, of the second " +
              std::to_string(memory.second_kib) + " KiB");
}

// In the middle of a download, with a terminal open.
static void stop_check()
{
    check(web_open(s_stage) && telnet_ready(), "the tunnels open once more");
    s_epoch++;
    std::thread browser(download, 20000000, 1);
    const uint64_t before = s_stage->web->stats().bytes_in;
    s_stage->web->wait(k_wait_ms, [&](const WebTunnelStats &stats) { return stats.bytes_in > before + 100000; });
    const long long term_ms = monotonic_ms();
    const int status = agent_stop(&s_stage->agent, SIGTERM);
    const long long took_ms = monotonic_ms() - term_ms;
    browser.join();
    check(status == SIGTERM && took_ms < k_stop_ms,
          "SIGTERM ends with status " + std::to_string(status) + " after " + std::to_string(took_ms) + " ms");
}

static void counts_say()
{
    std::string line;
    for (const auto &row : s_counts)
        line += (line.empty() ? "" : ", ") + row.first + " " + std::to_string(row.second);
    say(line);
}

static int soak(double minutes, unsigned seed, bool https)
{
    DeviceService files(serve_web_files, true, k_device_buffer);
    DeviceService echo(serve_echo, true, k_device_buffer);
    TunnelStage stage;
    s_stage = &stage;
    s_begin_ms = monotonic_ms();
    if (!start(https, files, echo)) {
        problem("the agent does not come online");
        return 1;
    }
    const Usage idle = usage_now();
    const long long end_ms = s_begin_ms + (long long)(minutes * 60000);
    std::vector<std::thread> threads;
    threads.emplace_back(device_run, seed);
    threads.emplace_back(tunnel_run, k_web_use, seed + 1);
    threads.emplace_back(tunnel_run, k_telnet_use, seed + 2);
    threads.emplace_back(faults_run, seed + 3, end_ms - k_last_phase_ms);
    const Memory memory = watch(end_ms);
    s_traffic = false;
    join_all(&threads);
    end_checks(idle, memory);
    stop_check();
    account();
    account_judge();
    const std::string tunnels = tunnel_problems(stage);
    check(tunnels.empty(), "NM's ends of the tunnels have found nothing wrong" + tunnels);
    counts_say();
    say(s_problems == 0 ? "all is right" : std::to_string(s_problems) + " things are wrong");
    return s_problems == 0 ? 0 : 1;
}

int main(int argc, char **argv)
{
    const double minutes = argc > 1 ? atof(argv[1]) : 5;
    const unsigned seed = argc > 2 ? (unsigned)strtoul(argv[2], nullptr, 10) : std::random_device()();
    const bool https = argc > 3 && strcmp(argv[3], "https") == 0;
    s_only = argc > 4 ? argv[4] : "";
    printf("%.1f minutes, seed %u, %s\n", minutes, seed, https ? "https" : "http");
    return soak(minutes, seed, https);
}
