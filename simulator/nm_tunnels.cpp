#include "nm_tunnels.h"

#include <time.h>

#include "nm_command.h"

// New for each tunnel, so that an agent that repeats an old authentication is refused.
static TunnelAuth fresh_auth_locked(NmTunnels *tunnels, const std::string &serial)
{
    const int count = ++tunnels->count;
    TunnelAuth auth;
    auth.device_sn = serial;
    auth.key = count;
    auth.token = "token-" + std::to_string(time(nullptr)) + "-" + std::to_string(count);
    auth.sessionid = "session-" + std::to_string(count);
    return auth;
}

static void queue_command(NmSim *nm, const std::string &serial, const std::string &type, const std::string &action,
                          const TunnelAuth &auth, int port)
{
    NmTunnel command;
    command.type = type;
    command.action = action;
    command.port = port;
    command.token = auth.token;
    command.key = auth.key;
    command.session = auth.sessionid;
    nm_sim_queue(nm, nm_command_tunnel(command), serial);
}

template <typename Sim> static bool is_taken(const NmTunnelMap<Sim> &sims, int client_port)
{
    for (const auto &row : sims) {
        if (row.second->client_port() == client_port)
            return true;
    }
    return false;
}

template <typename Sim>
static std::string tunnel_start(NmTunnels *tunnels, NmTunnelMap<Sim> *sims, const std::string &type, int client_port,
                                const std::string &serial)
{
    std::lock_guard<std::mutex> guard(tunnels->lock);
    sims->erase(serial); // frees the ports of an earlier one
    TunnelSimOptions options;
    options.auth = fresh_auth_locked(tunnels, serial);
    options.tls = nm_sim_is_https(tunnels->nm);
    options.tls_files = nm_sim_tls(tunnels->nm);
    options.client_port = is_taken(*sims, client_port) ? 0 : (uint16_t)client_port;
    auto sim = std::make_shared<Sim>(options);
    if (!sim->is_listening())
        return "no port for the tunnel";
    (*sims)[serial] = sim;
    queue_command(tunnels->nm, serial, type, "start", options.auth, sim->command_port());
    console_print(type + ": local clients connect to 127.0.0.1:" + std::to_string(sim->client_port()));
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
static std::string tunnel_line(NmTunnels *tunnels, NmTunnelMap<Sim> *sims, const std::string &type, int client_port,
                               const std::string &wanted, const ConsoleLine &line)
{
    const std::string action = line.word(0);
    const std::string serial = wanted.empty() ? nm_sim_request(tunnels->nm, "active", -1).serial : wanted;
    if (action == "start")
        return tunnel_start(tunnels, sims, type, client_port, serial);
    std::shared_ptr<Sim> sim; // so that a wait does not hold the lock
    {
        std::lock_guard<std::mutex> guard(tunnels->lock);
        auto found = sims->find(serial);
        if (found == sims->end())
            return "not started";
        sim = found->second;
    }
    if (action == "wait")
        return tunnel_wait(sim.get(), type, line.number(1, 30));
    queue_command(tunnels->nm, serial, type, "stop", TunnelAuth{"", "", "none", 0, "none"}, sim->command_port());
    return "";
}

std::string nm_tunnels_web(NmTunnels *tunnels, const std::string &serial, const ConsoleLine &line)
{
    return tunnel_line(tunnels, &tunnels->web, "remote-web", tunnels->web_port, serial, line);
}

std::string nm_tunnels_telnet(NmTunnels *tunnels, const std::string &serial, const ConsoleLine &line)
{
    return tunnel_line(tunnels, &tunnels->telnet, "remote-telnet", tunnels->telnet_port, serial, line);
}

template <typename Sim>
static void view_add(std::vector<NmTunnelView> *views, const NmTunnelMap<Sim> &sims, const std::string &type)
{
    for (const auto &row : sims) {
        NmTunnelView view = {row.first, type, false, row.second->client_port(), ""};
        row.second->wait(0, [&view](const TunnelStats &stats) { // reads them without a copy of the whole
            view.stands = stats.connected && stats.authenticated;
            view.problem = stats.problems.empty() ? "" : stats.problems.back();
            return true;
        });
        views->push_back(view);
    }
}

std::vector<NmTunnelView> nm_tunnels_view(NmTunnels *tunnels)
{
    std::lock_guard<std::mutex> guard(tunnels->lock);
    std::vector<NmTunnelView> views;
    view_add(&views, tunnels->web, "remote-web");
    view_add(&views, tunnels->telnet, "remote-telnet");
    return views;
}
