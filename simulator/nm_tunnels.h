// nm_tunnels.h - the tunnels of nm_simulator: the commands "web ..." and "telnet ...". Main thread.
#pragma once

#include <memory>
#include <string>

#include "console.h"
#include "nm_sim.h"
#include "telnet_tunnel_sim.h"
#include "web_tunnel_sim.h"

struct NmTunnels {
    NmSim *nm;
    int web_port;    // where local browsers connect; 0: any free port
    int telnet_port; // where local telnet clients connect; 0: any free port
    std::unique_ptr<WebTunnelSim> web;
    std::unique_ptr<TelnetTunnelSim> telnet;
};

// Runs "start", "stop" or "wait [SECONDS]" (until the agent has authenticated). Returns what is wrong, "" when done.
std::string nm_tunnels_web(NmTunnels *tunnels, const ConsoleLine &line);
std::string nm_tunnels_telnet(NmTunnels *tunnels, const ConsoleLine &line);
