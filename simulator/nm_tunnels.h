// nm_tunnels.h - the tunnels of nm_simulator, one of each kind for each device: the commands "web ..." and
// "telnet ...". Any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "console.h"
#include "nm_sim.h"
#include "telnet_tunnel_sim.h"
#include "web_tunnel_sim.h"

template <typename Sim> using NmTunnelMap = std::map<std::string, std::shared_ptr<Sim>>; // by serial number

struct NmTunnels {
    NmSim *nm;
    // Where local browsers and telnet clients connect: the first device's tunnel of the kind; the others' anywhere. 0:
    // any free port.
    int web_port;
    int telnet_port;
    std::mutex lock; // guards everything below
    NmTunnelMap<WebTunnelSim> web;
    NmTunnelMap<TelnetTunnelSim> telnet;
    int count = 0; // started so far

    NmTunnels(NmSim *sim, int web_client_port, int telnet_client_port)
        : nm(sim), web_port(web_client_port), telnet_port(telnet_client_port)
    {
    }
};

// Runs "start", "stop" or "wait [SECONDS]" (until the agent has authenticated) for that device; "": for the one that
// activated last. Returns what is wrong, "" when done.
std::string nm_tunnels_web(NmTunnels *tunnels, const std::string &serial, const ConsoleLine &line);
std::string nm_tunnels_telnet(NmTunnels *tunnels, const std::string &serial, const ConsoleLine &line);

struct NmTunnelView {
    std::string serial;
    std::string type;    // "remote-web" or "remote-telnet"
    bool stands;         // the agent is connected and has authenticated
    int port;            // for local clients
    std::string problem; // what the agent did wrong last; "" for nothing
};
std::vector<NmTunnelView> nm_tunnels_view(NmTunnels *tunnels);
