#include "soak_faults.h"

#include <algorithm>
#include <vector>

#include "soak_account.h"
#include "soak_log.h"
#include "soak_state.h"

constexpr int RECOVERY_MS = 90000; // after a fault: some bring-up retries and a heartbeat

// name: of the requests, "" for all, "udp" for the datagrams.
static void nm_misbehaves(const char *name, NmFaultKind kind, int delay_ms, int duration_ms)
{
    NmFault fault;
    fault.kind = kind;
    fault.delay_ms = delay_ms;
    fault.text = "not now";
    nm_sim_set_fault(g_soak.stage->nm, name, fault);
    soak_pause(duration_ms);
    nm_sim_clear_faults(g_soak.stage->nm);
}

static void nm_restarts(int duration_ms)
{
    nm_sim_absent(g_soak.stage->nm);
    soak_pause(duration_ms);
    if (!nm_sim_return(g_soak.stage->nm))
        soak_problem("NM cannot listen again");
}

static void device_restarts(int duration_ms)
{
    account_disconnect([] { device_sim_absent(g_soak.stage->device); });
    soak_pause(duration_ms);
    if (!device_sim_return(g_soak.stage->device))
        soak_problem("the device cannot listen again");
}

static void device_drops_in_frame(int)
{
    account_disconnect([] {
        device_sim_send_raw(g_soak.stage->device, device_frame_bytes(100000, std::string(60000, 'x')));
        soak_pause(300);
        device_sim_drop(g_soak.stage->device);
    });
}

static void nm_asks_for_restart(int)
{
    nm_sim_ask_restart(g_soak.stage->nm);
    soak_pause(3000); // the answer to a heartbeat says so
}

static void tunnels_are_cut(int)
{
    g_soak.stage->web->close_agent(true);
    g_soak.stage->telnet->close_agent(true);
}

static void tunnels_are_stopped(int)
{
    web_command(g_soak.stage, "stop");
    telnet_command(g_soak.stage, "stop");
}

static void nm_reads_slowly(int duration_ms)
{
    // Over TLS libevent's limit leaves the rest of a record in its session until more comes: not for a terminal.
    const int screen_per_s = g_soak.stage->options.tls ? 0 : 20000;
    g_soak.stage->web->read_slowly(20000);
    g_soak.stage->telnet->read_slowly(screen_per_s);
    soak_pause(duration_ms);
    g_soak.stage->web->read_slowly(0);
    g_soak.stage->telnet->read_slowly(0);
}

static void tunnels_set_mute(bool mute)
{
    for (TunnelSim *tunnel : {(TunnelSim *)g_soak.stage->web.get(), (TunnelSim *)g_soak.stage->telnet.get()}) {
        tunnel->set_mute(mute);
        tunnel->close_agent();
    }
}

// All connections, NM's own and both tunnels'.
static void nm_is_mute(int duration_ms)
{
    stage_nm_silent(g_soak.stage);
    tunnels_set_mute(true);
    soak_pause(duration_ms);
    nm_sim_clear_faults(g_soak.stage->nm);
    nm_sim_drop_connections(g_soak.stage->nm); // the agent's TLS handshake has no time limit
    tunnels_set_mute(false);
}

struct Fault {
    const char *name;
    void (*run)(int duration_ms);
    bool harmless = false; // everything has to be complete as in calm
};

static const Fault k_faults[] = {
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

void faults_set_periods()
{
    nm_sim_queue(g_soak.stage->nm, nm_command_trigger(1));
    NmStrategy strategy;
    strategy.action = "start";
    strategy.system_period_s = 2;
    strategy.mode = "timing";
    strategy.period_s = 3;
    nm_sim_queue(g_soak.stage->nm, nm_command_device_status(strategy));
}

// A command has reached the device, which the agent understands again and has told that it is online.
static bool command_passes(int wait_ms)
{
    static int s_number = 0;
    const std::string session = "probe-" + std::to_string(++s_number);
    nm_sim_queue(g_soak.stage->nm, nm_command_forward("reboot", session));
    return eventually([&] { return account_has_command(session) && account_is_synchronised() && account_is_online(); },
                      wait_ms);
}

static void fault_run(const Fault &fault, Random *random)
{
    g_soak.epoch += !fault.harmless;
    soak_count("faults");
    soak_say(std::string("fault: ") + fault.name);
    fault.run(soak_pick(random, 2000, 12000));
    faults_set_periods();
    // The first command may be handed to a connection that is about to end.
    if (!command_passes(RECOVERY_MS / 2) && !command_passes(RECOVERY_MS / 2))
        soak_problem(std::string("not back after: ") + fault.name);
    g_soak.epoch += !fault.harmless;
    soak_pause(soak_pick(random, 2000, 12000)); // long enough for the longest transfers
}

void faults_run(unsigned seed, long long end_ms, const std::string &only)
{
    Random random(seed);
    std::vector<Fault> wanted;
    std::copy_if(std::begin(k_faults), std::end(k_faults), std::back_inserter(wanted),
                 [&](const Fault &fault) { return text_has(fault.name, only); });
    while (!wanted.empty() && monotonic_ms() < end_ms) {
        std::vector<Fault> left = wanted;
        std::shuffle(left.begin(), left.end(), random);
        for (; !left.empty() && monotonic_ms() < end_ms; left.pop_back())
            fault_run(left.back(), &random);
    }
}
