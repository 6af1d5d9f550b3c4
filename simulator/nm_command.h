// nm_command.h - the texts of NM's commands, ready for nm_sim_queue.
#pragma once

#include <string>

// A command that the agent forwards to the device unchanged: "upgrade", "reboot", "ping", ... session "": none.
std::string nm_command_forward(const std::string &type, const std::string &session);

// A new heartbeat period.
std::string nm_command_trigger(int period_s);

struct NmStrategy {
    std::string action = "set"; // "set", "start" or "stop"
    int system_period_s = -1;   // negative: left out
    std::string mode; // "immediate", "timing", "delay", "immediate_timing", "immediate_delay"; empty: no strategy
    int period_s = -1;
    int limit_kib = -1;
};
// The run status period and the service report strategy.
std::string nm_command_device_status(const NmStrategy &strategy);

// Start or stop of a tunnel; type is "remote-web" or "remote-telnet".
struct NmTunnel {
    std::string type;
    std::string action = "start";
    std::string host = "127.0.0.1";
    int port = 0; // as sent; over https the agent connects to the next one
    std::string token = "token";
    int key = 1;
    std::string session = "session";
};
std::string nm_command_tunnel(const NmTunnel &tunnel);
