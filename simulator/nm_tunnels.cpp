#include "nm_tunnels.h"

#include <stdlib.h>
#include <time.h>

#include "nm_check.h"
#include "nm_command.h"

// The serial number of the device that activated last.
static std::string device_serial(NmSim *nm)
{
    const std::string line = nm_sim_request(nm, "active", -1).line;
    const size_t from = line.find(' ') + 1;
    return line.empty() ? "" : nm_request_serial(line.substr(from, line.rfind(' ') - from));
}

// New for each tunnel, so that an agent that repeats an old authentication is refused.
static TunnelAuth fresh_auth(NmSim *nm)
{
    static int s_count = 0;
    TunnelAuth auth;
    auth.device_sn = device_serial(nm);
    auth.key = ++s_count;
    auth.token = "token-" + std::to_string(time(nullptr)) + "-" + std::to_string(s_count);
    auth.sessionid = "session-" + std::to_string(s_count);
    return auth;
}

static void queue_command(NmSim *nm, const std::string &type, const std::string &action, const TunnelAuth &auth,
                          int port)
{
    NmTunnel command;
    command.type = type;
    command.action = action;
    command.port = port;
    command.token = auth.token;
    command.key = auth.key;
    command.session = auth.sessionid;
    nm_sim_queue(nm, nm_command_tunnel(command));
}

template <typename Sim>
static std::string tunnel_start(NmSim *nm, std::unique_ptr<Sim> *sim, const std::string &type, int client_port)
{
    TunnelSimOptions options;
    options.auth = fresh_auth(nm);
    options.tls = nm_sim_is_https(nm);
    options.tls_files = nm_sim_tls(nm);
    options.client_port = (uint16_t)client_port;
    sim->reset(); // frees the ports of an earlier one
    *sim = std::make_unique<Sim>(options);
    if (!(*sim)->is_listening())
        return "no port for the tunnel";
    queue_command(nm, type, "start", options.auth, (*sim)->command_port());
    console_print(type + ": local clients connect to 127.0.0.1:" + std::to_string((*sim)->client_port()));
    return "";
}

template <typename Sim> static std::string tunnel_wait(Sim *sim, const std::string &type, int seconds)
{
    const bool stands = sim->wait(seconds * 1000, [](const TunnelStats &stats) { return stats.authenticated; });
    for (const std::string &problem : sim->stats().problems)
        console_print(type + ": WRONG: " + problem);
    console_print(type + (stands ? ": the tunnel stands" : ": the agent did not come"));
    return stands ? "" : "no tunnel";
}

template <typename Sim>
static std::string tunnel_line(NmSim *nm, std::unique_ptr<Sim> *sim, const std::string &type, int client_port,
                               const ConsoleLine &line)
{
    const std::string action = line.word(0);
    if (action == "start")
        return tunnel_start(nm, sim, type, client_port);
    if (!*sim)
        return "not started";
    if (action == "wait")
        return tunnel_wait(sim->get(), type, line.number(1, 30));
    queue_command(nm, type, "stop", TunnelAuth{"", "", "none", 0, "none"}, (*sim)->command_port());
    return "";
}

std::string nm_tunnels_web(NmTunnels *tunnels, const ConsoleLine &line)
{
    return tunnel_line(tunnels->nm, &tunnels->web, "remote-web", tunnels->web_port, line);
}

std::string nm_tunnels_telnet(NmTunnels *tunnels, const ConsoleLine &line)
{
    return tunnel_line(tunnels->nm, &tunnels->telnet, "remote-telnet", tunnels->telnet_port, line);
}
