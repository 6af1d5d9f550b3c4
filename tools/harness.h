// harness.h - the real binary in a temporary directory, between a simulated NM and a simulated device.
// Tests wait on events (log lines, requests, frames), never on sleeps. agent_stop and the destructor leave nothing
// behind.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "device_files.h"
#include "device_sim.h"
#include "nm_command.h"
#include "nm_sim.h"

// Generous on purpose: a slow machine only waits longer, and a failing test says what it waited for.
const int k_wait_ms = 40000;

// Rows of config.ini: "section:key" and value.
using ConfigRows = std::vector<std::pair<std::string, std::string>>;

struct AgentConsole; // what it printed; read all the time by a thread, so that a full pipe never stops the agent

struct AgentProcess {
    std::string dir;         // temporary, removed at the end
    int pid = -1;            // -1: not running
    int status = -1;         // exit status; 128 + signal number when a signal killed it; -1 while it runs
    int descriptors_max = 0; // from its start, the three standard ones included; 0: no limit of its own
    size_t seen = 0;         // agent_wait_log looks behind this place of the output
    AgentConsole *console = nullptr;
};

// One NM, one device, one agent, wired to each other. Start with stage_start or piece by piece.
struct Stage {
    NmSim *nm = nullptr;
    DeviceSim *device = nullptr;
    AgentProcess agent;
    DeviceCfg cfg;     // what stage_write writes as init cfg
    ConfigRows config; // what stage_write writes as config.ini

    Stage() = default;
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;
    ~Stage(); // kills what still runs, removes the directory; on a failed test prints the console's end and what was
              // wrong
};

// Makes the directory, starts NM and device on free ports and fills cfg and config; the agent is not started.
void stage_prepare(Stage *stage, bool https);
void stage_write(const Stage &stage); // config.ini and the device's files
void config_set(ConfigRows *rows, const std::string &key, const std::string &value);
// stage_write, agent_start.
bool stage_run(Stage *stage);
// Waits until the device has been told "online" (looking behind the last log line found). False when that does not
// come.
bool stage_wait_online(Stage *stage, int timeout_ms = k_wait_ms);
// stage_start and stage_wait_online.
bool stage_online(Stage *stage, bool https);
// Hands the command to NM and waits until a handshake has taken it away: one heartbeat period at most.
bool stage_command(Stage *stage, const std::string &command);
// Shortens the heartbeat period to 1 s with a command; the first heartbeat comes after 6 s.
bool stage_fast_heartbeat(Stage *stage);
// Everything NM and device found wrong; empty when all was right.
std::string stage_wrong(const Stage &stage);
// Stops the agent by SIGTERM; what was wrong, an exit status other than that included.
std::string stage_end(Stage *stage);

// Runs the binary in agent->dir; again after a stop.
bool agent_start(AgentProcess *agent);
// Waits for a line that contains text, behind the last one found. False after timeout_ms or when the agent has ended.
bool agent_wait_log(AgentProcess *agent, const std::string &text, int timeout_ms = k_wait_ms);
bool agent_has_log(const AgentProcess &agent, const std::string &text); // anywhere so far
bool text_has(const std::string &text, const std::string &part);
int text_count(const std::string &text, const std::string &part);
std::string agent_output(const AgentProcess &agent); // everything so far, without colours
// Under the thread sanitizer about one signal in 300 that comes while the agent starts never reaches its handler: none
// pending, none blocked. There agent_stop sends it again; the agent takes the first and ignores the rest.
#ifdef __SANITIZE_THREAD__
const int k_signal_again_ms = 5000;
#else
const int k_signal_again_ms = 1000 * 1000;
#endif
// Sends the signal and waits for the end. Returns the exit status; -1 when it still runs after timeout_ms.
int agent_stop(AgentProcess *agent, int signal_number, int timeout_ms = k_wait_ms);
// Waits for an end by itself. Same result.
int agent_wait_exit(AgentProcess *agent, int timeout_ms = k_wait_ms);

// Waits for what no event tells, such as a count in /proc.
bool eventually(const std::function<bool()> &holds, int wait_ms = k_wait_ms);

int proc_threads(int pid);
int proc_descriptors(int pid);
// Descriptors and threads, the least of each within a second: a heartbeat that comes in between does not count.
std::pair<int, int> proc_usage_at_rest(int pid);
// Waits until both are back to what an idle agent uses.
bool proc_usage_returns(int pid, const std::pair<int, int> &idle);
int proc_rss_kib(int pid);
int proc_private_kib(int pid); // written pages that are its own
bool proc_rss_counts();        // false under an emulator or a sanitizer, whose own memory grows
int proc_cpu_ms(int pid);      // user and system time so far
std::string file_text(const std::string &path);

// A port of 127.0.0.1 that takes no connection and refuses none: connecting to it hangs. Close the descriptors after
// use.
int black_hole_port(std::vector<int> *descriptors);
