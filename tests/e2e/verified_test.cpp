// The agent that verifies NM, with the right NM and with strangers.
#include <gtest/gtest.h>

#include "sim_cert.h"
#include "tunnel_stage.h"

// NM, known by its name, with tunnel ends known by their address, and an agent that verifies them.
struct VerifiedStage : TunnelStage {
    SimCertDir certs;

    VerifiedStage()
    {
        certs.make("ca", {"the CA", "", true});
        certs.make("other-ca", {"another CA", "", true});
        certs.make("nm", {"NM", "DNS:localhost"}, "ca");
        certs.make("tunnels", {"tunnels of NM", "IP:127.0.0.1"}, "ca");
        certs.make("device", {"SN00000001", ""}, "ca");
        certs.make("stranger", {"stranger", "DNS:localhost,IP:127.0.0.1"}, "other-ca");
        nm_options.tls = certs.server("nm", "ca");
        options.tls_files = certs.server("tunnels", "ca");
        device_cfg_set_text(&cfg, "host", "localhost");
        config_set(&config, "nm_tls:ca_file", certs.file("ca"));
        config_set(&config, "nm_tls:client_cert", certs.file("device"));
        config_set(&config, "nm_tls:client_key", certs.file("device.key"));
        config_set(&config, "plugin_config:log_secrets", "0");
    }
    // What must reach nobody but NM, and no log.
    std::vector<std::string> secrets() const
    {
        const std::string header = nm_sim_request(nm, "active", 0).headers.at(3);
        EXPECT_EQ(0u, header.find("secretKey: ")) << header;
        return {options.auth.token, std::to_string(options.auth.key), header.substr(11)};
    }
};

// NM names its tunnel end by an address that the end's certificate does not have, then by the name that it has.
template <class Sim> static void tunnel_end_by_name(VerifiedStage *stage, const char *type)
{
    SCOPED_TRACE(type);
    TunnelSimOptions options = stage->options;
    options.tls_files = stage->certs.server("nm", "ca");
    Sim end(options);
    EXPECT_TRUE(tunnel_start_at(stage, type, "127.0.0.1", end.command_port()));
    EXPECT_TRUE(agent_wait_log(&stage->agent, "TLS with 127.0.0.1 refused: IP address mismatch"));
    EXPECT_TRUE(end.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.closes == 1; }));
    EXPECT_EQ("", end.stats().auth_text);
    EXPECT_TRUE(tunnel_start_at(stage, type, "localhost", end.command_port()));
    EXPECT_TRUE(end.wait(k_wait_ms, [](const TunnelStats &stats) { return stats.authenticated; }));
}

TEST(Verified, JoinsAndRefusesStrangers)
{
    DeviceService files(serve_web_files), echo(serve_echo);
    VerifiedStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &files, &echo));
    nm_sim_set_fault(stage.nm, "udp", {NM_FAULT_SILENCE, 0, 1, ""});
    ASSERT_TRUE(nm_sim_wait_for(stage.nm, "heartbeat", 1, k_wait_ms));
    ASSERT_TRUE(web_open(&stage) && telnet_open(&stage) && web_close(&stage) && telnet_close(&stage));
    EXPECT_FALSE(agent_has_log(stage.agent, "[ERR]"));

    tunnel_end_by_name<WebTunnelSim>(&stage, "remote-web");
    tunnel_end_by_name<TelnetTunnelSim>(&stage, "remote-telnet");
    const std::string ca = stage.certs.file("ca"), gone = stage.certs.file("gone");
    ASSERT_EQ(0, rename(ca.c_str(), gone.c_str()));
    EXPECT_EQ("false", stage_result(&stage));
    ASSERT_EQ(0, rename(gone.c_str(), ca.c_str()));
    EXPECT_EQ("true", stage_result(&stage));

    NmOptions options;
    options.https = true;
    options.tls = stage.certs.server("stranger", "ca");
    NmSim *stranger = nm_sim_start(options);
    nm_sim_set_activation(stage.nm, {304, "", "localhost", nm_sim_port(stranger) - 1, ""});
    nm_sim_ask_restart(stage.nm);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Will redirect to the new NMS: 127.0.0.1"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "TLS with localhost refused: unable to get local issuer certificate, "
                                             "peer's certificate: /CN=stranger"));
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Device active failed!"));
    EXPECT_EQ(0u, nm_sim_transcript(stranger).all().size());
    for (const std::string &secret : stage.secrets())
        EXPECT_FALSE(agent_has_log(stage.agent, secret)) << secret;
    EXPECT_TRUE(agent_has_log(stage.agent, "\"token\":\"***\",\"key\":***"));
    EXPECT_TRUE(agent_has_log(stage.agent, "secretKey: ***"));
    EXPECT_EQ("", stage_end(&stage));
    nm_sim_stop(stranger);
}
