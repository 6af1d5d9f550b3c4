#include "tunnel_stage.h"

#include <gtest/gtest.h>

TunnelStage::TunnelStage()
{
    options.auth.device_sn = "SN00000001";
    options.auth.token = "a token";
    options.auth.key = -1234567;
    options.auth.sessionid = "0f9e-11";
}

TunnelStage::~TunnelStage()
{
    if (web && telnet) {
        EXPECT_EQ("", tunnel_problems(*this));
    }
}

bool tunnel_stage_start(TunnelStage *stage, bool https, const DeviceService *web, const DeviceService *telnet)
{
    stage_prepare(stage, https);
    device_cfg_set_text(&stage->cfg, "dev-sn", stage->options.auth.device_sn);
    if (web)
        device_cfg_set(&stage->cfg, "web_port", std::to_string(web->port()));
    if (telnet)
        device_cfg_set(&stage->cfg, "telnet_port", std::to_string(telnet->port()));
    stage_write(*stage);
    stage->options.tls = https;
    if (stage->options.tls_files.cert.empty())
        stage->options.tls_files = stage->nm_options.tls;
    stage->web = std::make_unique<WebTunnelSim>(stage->options);
    stage->telnet = std::make_unique<TelnetTunnelSim>(stage->options);
    return agent_start(&stage->agent) && agent_wait_log(&stage->agent, "Init cfg successfully") &&
           stage_fast_heartbeat(stage);
}

static bool tunnel_command(TunnelStage *stage, const std::string &type, const std::string &action,
                           const std::string &host, int port)
{
    const TunnelAuth &auth = stage->options.auth;
    return stage_command(stage, nm_command_tunnel({type, action, host, port, auth.token, auth.key, auth.sessionid}));
}

bool web_command(TunnelStage *stage, const std::string &action)
{
    return tunnel_command(stage, "remote-web", action, "127.0.0.1", stage->web->command_port());
}

bool telnet_command(TunnelStage *stage, const std::string &action)
{
    return tunnel_command(stage, "remote-telnet", action, "127.0.0.1", stage->telnet->command_port());
}

bool tunnel_start_at(TunnelStage *stage, const std::string &type, const std::string &host, int port)
{
    return tunnel_command(stage, type, "start", host, port);
}

bool tunnel_is_closed(const TunnelStats &stats)
{
    return !stats.connected;
}

bool web_open(TunnelStage *stage)
{
    const uint32_t before = stage->web->stats().connects;
    return web_command(stage, "start") && stage->web->wait(k_wait_ms, [&](const WebTunnelStats &stats) {
        return stats.connects > before && stats.authenticated;
    });
}

bool telnet_open(TunnelStage *stage)
{
    return telnet_command(stage, "start") && agent_wait_log(&stage->agent, "Authentication/INIT sucessfully!");
}

bool web_close(TunnelStage *stage)
{
    return web_command(stage, "stop") && stage->web->wait(k_wait_ms, tunnel_is_closed);
}

bool telnet_close(TunnelStage *stage)
{
    return telnet_command(stage, "stop") && stage->telnet->wait(k_wait_ms, tunnel_is_closed);
}

void web_request(WebTunnelSim *web, uint64_t id, const std::string &bytes)
{
    std::string frames;
    for (size_t at = 0; at < bytes.size(); at += 8000)
        frames += web_frame(WEB_FRAME_REQ, id, bytes.substr(at, 8000));
    web->send_bytes(frames);
}

uint64_t web_ask(WebTunnelSim *web, const std::string &bytes)
{
    const uint64_t id = web->open_id();
    web_request(web, id, bytes);
    return id;
}

bool web_data_is(WebTunnelSim *web, uint64_t id, const std::string &expected)
{
    return web->wait(k_wait_ms, [&](const WebTunnelStats &stats) { return stats.ids.at(id).data == expected; });
}

bool web_is_ended(WebTunnelSim *web, uint64_t id)
{
    return web->wait(k_wait_ms, [&](const WebTunnelStats &stats) { return stats.ids.at(id).dev_destroys > 0; });
}

std::string tunnel_problems(const TunnelStage &stage)
{
    std::string all;
    for (const auto &problem : stage.web->stats().problems)
        all += "web: " + problem + "\n";
    for (const auto &problem : stage.telnet->stats().problems)
        all += "telnet: " + problem + "\n";
    return all;
}
