// tunnel_stage.h - the harness's stage with NM's ends of both tunnels added.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "device_service.h"
#include "harness.h"
#include "telnet_tunnel_sim.h"
#include "web_tunnel_sim.h"

struct TunnelStage : Stage {
    TunnelStage();
    ~TunnelStage(); // fails the test when NM's tunnel ends found something wrong
    std::unique_ptr<WebTunnelSim> web;
    std::unique_ptr<TelnetTunnelSim> telnet;
    TunnelSimOptions options; // of both; tls as in https
};

// Starts NM's tunnel ends on free ports and the agent, online, with heartbeats every second and debug log lines. web
// and telnet: the device's services; nullptr: none. What stage->options, stage->config and stage->cfg hold before
// stays in force.
bool tunnel_stage_start(TunnelStage *stage, bool https, const DeviceService *web, const DeviceService *telnet);

bool web_command(TunnelStage *stage, const std::string &action); // returns when the agent has fetched it
bool telnet_command(TunnelStage *stage, const std::string &action);
// "start" of a tunnel ("remote-web", "remote-telnet") whose end at NM is another one.
bool tunnel_start_at(TunnelStage *stage, const std::string &type, const std::string &host, int port);
bool web_open(TunnelStage *stage);    // "start", and waits for the authentication
bool telnet_open(TunnelStage *stage); // "start", and waits for the relay
bool web_close(TunnelStage *stage);   // "stop", and waits for the end of the connection
bool telnet_close(TunnelStage *stage);
// For wait: the agent's connection to this end of a tunnel has ended.
bool tunnel_is_closed(const TunnelStats &stats);

// Sends request bytes of an id, in frames of 8,000 bytes at most; web_ask opens the id.
void web_request(WebTunnelSim *web, uint64_t id, const std::string &bytes);
uint64_t web_ask(WebTunnelSim *web, const std::string &bytes);
// Waits until the response bytes of the id are expected, and nothing more.
bool web_data_is(WebTunnelSim *web, uint64_t id, const std::string &expected);
// Waits until NM has been told that the device has closed the id's connection.
bool web_is_ended(WebTunnelSim *web, uint64_t id);

// What NM's tunnel ends found wrong, one line each.
std::string tunnel_problems(const TunnelStage &stage);
