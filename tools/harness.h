// harness.h - the real binary in a temporary directory, between a simulated NM and a simulated device.
// Tests wait for events (log lines, requests, frames), never for time to pass. The destructor of Stage leaves nothing
// behind. Threads: one stage, one thread.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "device_files.h"
#include "device_sim.h"
#include "nm_command.h"
#include "nm_sim.h"

// Time limit of the waits below. Long on purpose: only a test that fails waits for it.
const int k_wait_ms = 40000;

// Rows of config.ini: "section:key" and value.
using ConfigRows = std::vector<std::pair<std::string, std::string>>;

struct AgentConsole; // what the agent has printed; a thread reads it, so that a full pipe never stops the agent

struct AgentProcess {
    std::string dir;         // temporary, removed at the end
    int pid = -1;            // -1: not running
    int status = -1;         // exit status; 128 + signal number when a signal killed it; -1 while it runs
    std::string binary;      // empty: proxy_plugin
    int descriptors_max = 0; // RLIMIT_NOFILE; 0: as in this process
    size_t seen = 0;         // where in the output agent_wait_log begins
    AgentConsole *console = nullptr;
};

// One NM, one device and one agent that is configured for both. Start it with stage_online or step by step.
struct Stage {
    NmSim *nm = nullptr;
    DeviceSim *device = nullptr;
    NmOptions nm_options; // what stage_prepare starts NM with; https and serial are set by it
    AgentProcess agent;
    DeviceCfg cfg;     // what stage_write writes as init cfg
    ConfigRows config; // what stage_write writes as config.ini

    Stage() = default;
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;
    // Kills the agent if it runs and removes the directory. Fails the test when a sanitizer has reported; when the test
    // has failed, prints the end of the console and what was wrong.
    ~Stage();
};

// Makes the directory, starts NM and device on free ports and fills cfg and config; what they hold before stays in
// force. The agent is not started.
void stage_prepare(Stage *stage, bool https);
void stage_write(const Stage &stage); // config.ini and the device's files
void config_set(ConfigRows *rows, const std::string &key, const std::string &value);
// stage_write and agent_start.
bool stage_run(Stage *stage);
// Waits until the device has been told "online" (in the log, from the last line found on). False after timeout_ms.
bool stage_wait_online(Stage *stage, int timeout_ms = k_wait_ms);
// stage_prepare, stage_run and stage_wait_online.
bool stage_online(Stage *stage, bool https);
// Queues the command at NM and waits until a handshake has fetched it: one heartbeat period at most.
bool stage_command(Stage *stage, const std::string &command);
// Shortens the heartbeat period from 6 s to 1 s by a command.
bool stage_fast_heartbeat(Stage *stage);
// The device pings, and waits for its pong. False after timeout_ms.
bool stage_ping(Stage *stage, const std::string &ping = R"({"type":"ping"})", int timeout_ms = k_wait_ms);
// The device hands in a result of the session "s". Returns what the ack says: "true" or "false"; else all of it, or
// nothing when none comes.
std::string stage_result(Stage *stage, const std::string &result = R"({"type":"cfg-result","sessionid":"s"})");
// Ends NM's connections. Those that follow are accepted and never read, so that TLS does not start either.
void stage_nm_silent(Stage *stage);
// Everything NM and device found wrong; empty when all was right.
std::string stage_wrong(const Stage &stage);
// Stops the agent with SIGTERM. Everything wrong as in stage_wrong, and an exit status other than SIGTERM.
std::string stage_end(Stage *stage);

// Runs the binary in agent->dir; also again after it has ended. False when it runs already or cannot be started.
bool agent_start(AgentProcess *agent);
// Waits for text in the output, from the last one found on. False after timeout_ms or when the agent has ended.
bool agent_wait_log(AgentProcess *agent, const std::string &text, int timeout_ms = k_wait_ms);
bool agent_has_log(const AgentProcess &agent, const std::string &text); // anywhere so far
bool text_has(const std::string &text, const std::string &part);
int text_count(const std::string &text, const std::string &part);
std::string agent_output(const AgentProcess &agent); // everything so far, of all starts, without colours
// Under ThreadSanitizer about one signal in 300 that arrives while the agent starts never reaches its handler, though
// none is pending or blocked. There agent_stop repeats the signal; the agent acts on the first and ignores the others.
#ifdef __SANITIZE_THREAD__
const int k_signal_again_ms = 5000;
#else
const int k_signal_again_ms = 1000 * 1000;
#endif
// Sends the signal and waits for the end. Returns the exit status; -1 when it still runs after timeout_ms.
int agent_stop(AgentProcess *agent, int signal_number, int timeout_ms = k_wait_ms);
// The same without a signal: waits until the agent ends by itself.
int agent_wait_exit(AgentProcess *agent, int timeout_ms = k_wait_ms);

// Runs each of what(0) to what(count - 1) on a thread of its own and waits for all: for what spends its time waiting.
void side_by_side(size_t count, const std::function<void(size_t)> &what);

// Polls for a condition that no event announces, such as a count in /proc. False after wait_ms.
bool eventually(const std::function<bool()> &holds, int wait_ms = k_wait_ms);

// Figures of a process from /proc; negative when it has ended, the CPU time 0.
int proc_threads(int pid);
int proc_descriptors(int pid);
// Descriptors and threads, the least of each within a second: a heartbeat that comes in between does not count.
std::pair<int, int> proc_usage_at_rest(int pid);
// Waits until both are back to what an idle agent uses.
bool proc_usage_returns(int pid, const std::pair<int, int> &idle);
int proc_rss_kib(int pid);
int proc_private_kib(int pid); // private pages that have been written to
bool proc_rss_counts();        // whether RSS is the agent's alone: not under an emulator or a sanitizer
int proc_cpu_ms(int pid);      // user and system time so far

// A port of 127.0.0.1 that neither accepts nor refuses connections: connecting to it hangs. -1 on failure. It stays for
// the rest of this process.
int black_hole_port();
