// The example files of the wire formats: the agent says and understands these bytes, and so do the simulators.
#include "device/dev_msg_recv.h"
#include "device/dev_msg_recv_internal.h"
#include "device/dma_status.h"
#include "device_check.h"
#include "device_files.h"
#include "device_sim.h"
#include "nm/activation.h"
#include "nm/heartbeat.h"
#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"
#include "nm/nm_msg.h"
#include "nm/nm_msg_table.h"
#include "nm/nm_session.h"
#include "nm_check.h"
#include "nm_command.h"
#include "nm_reply.h"
#include "peers.h"
#include "remote/remote_telnet.h"
#include "remote/web_frame.h"
#include "status/service_status.h"
#include "telnet_tunnel_sim.h"
#include "web_tunnel_sim.h"

static std::string bytes_of(const std::string &name)
{
    return format_read(std::string(FORMATS_DIR) + "/" + name + ".txt");
}

static void expect_from(int fd, const char *name)
{
    const std::string expected = bytes_of(name);
    EXPECT_EQ(expected, fd_read(fd, expected.size()));
}

// The device of the files, with an NM that answers with them.
struct Stage {
    LogLines log; // ends last
    NmPeer nm;
    std::string udp_port;
    int device, udp = bound_socket(SOCK_DGRAM, &udp_port);

    Stage()
    {
        start_process_once();
        nm_msg_table_init();
        nm_post_heartbeat_answered_set(heartbeat_answered);
        EXPECT_EQ(0, init_cfg_parse_text(device_cfg_text(device_cfg_default("", false, 8080, 9000)).c_str()));
        info_edit([this](PluginInfo *next) {
            (void)text_set(next->nm_port, nm.port.c_str());
            (void)text_set(next->plugin_version, "1.0");
            endpoint_set(&next->udp_detection, udp_port);
        });
        nm_sign_init();
        dev_msg_recv_init();
        EXPECT_EQ(1, dev_msg_buffer_init());
        device = device_link();
    }
    ~Stage()
    {
        conn_remove_all();
        free_device_buffers();
        close(device);
        close(udp);
    }
    // NM's last request, as if it had come to the port of the files.
    std::string last_request()
    {
        const Texts requests = nm.now(&NmPeer::requests);
        std::string request = requests.empty() ? "(none)" : requests.back();
        const std::string here = "127.0.0.1:" + nm.port;
        const size_t at = request.find(here);
        return at == std::string::npos ? request : request.replace(at, here.size(), "127.0.0.1:8080");
    }
};

TEST(Formats, AgentAndDevice)
{
    const struct {
        const char *from_device, *path, *request, *answer, *to_device;
    } rows[] = {
        {"device-ping", nullptr, nullptr, nullptr, "device-pong"},
        {"device-online-status", nullptr, nullptr, nullptr, "device-online-status-ack"},
        {"device-result", "cfgResult", "http-result-request", "http-result-answer", "device-result-ack"},
        {"device-alarm", "alarm", "http-alarm-request", "http-alarm-answer", "device-alarm-ack"},
    };
    Stage stage;
    dma_status_set(DMA_ACTIVATION_FAILED, DMA_CAUSE_CLEAR);
    set_dma_cause("unknown device");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.from_device);
        if (row.path)
            stage.nm.answer_set(row.path, {bytes_of(row.answer)});
        fd_send(stage.device, bytes_of(row.from_device));
        dev_msg_recv();
        dev_msg_get();
        expect_from(stage.device, row.to_device);
        EXPECT_TRUE(!row.path || stage.last_request() == bytes_of(row.request)) << stage.last_request();
    }
}

TEST(Formats, AgentAndNm)
{
    Stage stage;
    const auto beat_once = [&](const char *answer) { // NM's end of one heartbeat over UDP
        std::thread beats([] { udp_handler(nullptr); });
        char got[256];
        sockaddr_in from;
        socklen_t len = sizeof(from);
        const ssize_t size = recvfrom(stage.udp, got, sizeof(got), 0, (sockaddr *)&from, &len);
        EXPECT_EQ(bytes_of("udp-heartbeat"), std::string(got, (size_t)std::max<ssize_t>(size, 0)));
        const std::string word = bytes_of(answer);
        sendto(stage.udp, word.data(), word.size(), 0, (sockaddr *)&from, len);
        beats.join();
    };
    g_init_done = 1;
    beat_once("udp-active");
    EXPECT_TRUE(stage.log.has("len: 6, buf: ACTIVE"));
    EXPECT_EQ(Texts{}, stage.nm.now(&NmPeer::paths));
    stage.nm.answer_set("handshake", {bytes_of("http-handshake-answer")});
    beat_once("udp-ack");
    EXPECT_EQ(bytes_of("http-handshake-request"), stage.last_request());
    expect_from(stage.device, "device-command");
    beat_once("udp-rec");
    EXPECT_EQ(0, (int)g_init_done);
}

TEST(Formats, AgentAndNmOverHttp)
{
    Stage stage;
    g_init_done = 1;
    shutdown(stage.udp, SHUT_RDWR);
    close(std::exchange(stage.udp, -1)); // refused at once
    stage.nm.answer_set("heartbeat", {bytes_of("http-heartbeat-answer")});
    for (int i = 1; i <= 5; i++) { // each goes over HTTP too, the ones behind the fifth over HTTP alone
        udp_handler(nullptr);
        EXPECT_EQ(i == 5, stage.log.has("Change to http mode."));
    }
    EXPECT_EQ(bytes_of("http-heartbeat-request"), stage.last_request());
    EXPECT_FALSE(conn_is_connected(NM_UDP_DETECTION));
    const std::string none, word = bytes_of("http-heartbeat-answer"), rec = http_ok("{\"result\":\"rec\"}");
    stage.nm.answer_set("heartbeat", {rec, none, none, none, none, word, none});
    udp_handler(nullptr);
    EXPECT_EQ(0, (int)g_init_done);
    g_init_done = 1;
    for (int i = 1; i <= 10; i++) { // five in a row without an answer ask for a new bring-up
        udp_handler(nullptr);
        EXPECT_EQ(i < 10, g_init_done == 1) << i;
    }

    const TempDir dir;
    const std::string file = dir.path + "/service";
    EXPECT_TRUE(device_service_add(file, "{\"name\":\"vpn\",\"state\":\"up\"}"));
    info_edit([&](PluginInfo *next) { (void)text_set(next->service_path, file.c_str()); });
    stage.nm.answer_set("services", {bytes_of("http-services-answer")});
    service_status_report(0);
    EXPECT_EQ(bytes_of("http-services-request"), stage.last_request());

    stage.nm.answer_set("active", {bytes_of("http-active-refused"), bytes_of("http-active-answer"),
                                   bytes_of("http-active-redirected")});
    EXPECT_NE(0, device_activate());
    char cause[DMA_CAUSE_SIZE];
    dma_status_describe(cause);
    EXPECT_STREQ("unknown device", cause);
    EXPECT_EQ(0, device_activate());
    EXPECT_EQ(bytes_of("http-active-request"), stage.last_request());
    EXPECT_STREQ("6001", info_now().udp_detection.remote_port);
    EXPECT_NE(0, device_activate());
    EXPECT_STREQ("192.0.2.7", info_now().nm_ip);
    EXPECT_STREQ("8091", info_now().nm_port);
    expect_from(stage.device, "device-redirection");
}

TEST(Formats, AgentAndTunnels)
{
    Stage stage;
    SocketConn conn;
    const int peer = connect_pair(&conn);
    const std::string asked = bytes_of("web-request"), closed = bytes_of("web-browser-closed");
    const WebHeader request = web_header_get((const uint8_t *)asked.data());
    EXPECT_EQ(MSG_TYPE_REQ, request.type);
    EXPECT_EQ(asked.size() - WEB_HEADER_SIZE, request.length);
    const WebHeader end = web_header_get((const uint8_t *)closed.data());
    EXPECT_EQ(MSG_TYPE_WEB_DESTROY, end.type);
    EXPECT_EQ(0u, end.length);
    EXPECT_TRUE(web_is_same_id(request.msg_id, end.msg_id));
    const std::string page = bytes_of("web-response").substr(WEB_HEADER_SIZE);
    EXPECT_EQ(0, remote_web_rsp_transmit_privately(&conn, (const uint8_t *)page.data(), (uint32_t)page.size(),
                                                   request.msg_id, MSG_TYPE_RESP));
    expect_from(peer, "web-response");
    EXPECT_EQ(0, remote_web_rsp_transmit_privately(&conn, nullptr, 0, request.msg_id, MSG_TYPE_DEV_DESTROY));
    expect_from(peer, "web-device-closed");
    socket_close_private(&conn);
    close(peer);
}

TEST(Formats, AgentAndTelnetSetUp)
{
    Stage stage;
    std::string device_port;
    const int device = listen_socket(&device_port);
    DeviceService nm([](int fd) {
        expect_from(fd, "tunnel-auth");
        fd_send(fd, bytes_of("telnet-answer"));
        fd_send(fd, bytes_of("telnet-init"));
    });
    info_edit([&](PluginInfo *next) { endpoint_set(&next->dev_telnet, device_port); });
    remote_telnet_init();
    std::string command = bytes_of("command-remote-web"); // the other tunnel's differs in the type only
    command.replace(command.find("7001"), 4, port_of(nm));
    EXPECT_EQ(0, remote_telnet_req_handle(0, nullptr, command.c_str(), (uint32_t)command.size()));
    EXPECT_TRUE(stage.log.has("Creating Remote-telnet tunnel to device successfully!"));
    close(device);
}

TEST(Formats, AgentAndCommands)
{
    const struct {
        const char *name, *line;
    } rows[] = {
        {"command-trigger", "Changing UDP detection interval from: 6 to 10."},
        {"command-device-status", "system status report interval from: 120 to 60."},
        {"command-remote-web", "Preparing half tunnel... type: REMOTE_WEB_SERVER, peer: 127.0.0.1:7001"},
    };
    Stage stage;
    for (const auto &row : rows) {
        (void)nm_msg_process(0, ("{\"result\":{\"payload\":[" + bytes_of(row.name) + "]}}").c_str());
        EXPECT_TRUE(stage.log.has(row.line)) << row.name;
    }
    expect_from(stage.device, "device-strategy");
    alarm(0);
}

TEST(Formats, Signature)
{
    Stage stage;
    EXPECT_EQ(bytes_of("signature"), info_now().header_secret_key);
    EXPECT_EQ(bytes_of("signature"), nm_signature("SN00000001"));
    EXPECT_EQ(bytes_of("signature-input"), nm_signature_input("SN00000001"));
}

// What a simulated NM and a simulated device find right, and what they say themselves.
TEST(Formats, SimulatedNm)
{
    NmSim nm;
    nm.options.udp_port = 6001;
    nm.devices[""].commands.push_back(nm_command_forward("reboot", "s-1"));
    const auto answer_to = [&](const std::string &name) {
        HttpRequest request;
        std::string wrong;
        EXPECT_GT(http_request_cut(bytes_of("http-" + name + "-request"), &request, &wrong), 0);
        EXPECT_EQ("", nm_check_request(request, "127.0.0.1:8080", "SN00000001"));
        return nm_reply_request_locked(&nm, nm_request_name(request.path), request).bytes;
    };
    EXPECT_EQ("", nm_check_datagram(bytes_of("udp-heartbeat"), "SN00000001"));
    EXPECT_EQ(bytes_of("udp-ack"), nm_reply_datagram_locked(&nm, "SN00000001").bytes);
    for (const char *name : {"active", "handshake", "heartbeat", "services", "result", "alarm"})
        EXPECT_EQ(bytes_of(std::string("http-") + name + "-answer"), answer_to(name));
    EXPECT_EQ(bytes_of("udp-active"), nm_reply_datagram_locked(&nm, "SN00000001").bytes);
    nm.devices[""].restart_wanted = true;
    EXPECT_EQ(bytes_of("udp-rec"), nm_reply_datagram_locked(&nm, "SN00000001").bytes);
    nm.activation.status = 403;
    nm.activation.error = "unknown device";
    EXPECT_EQ(bytes_of("http-active-refused"), answer_to("active"));
    nm.activation.status = 304;
    nm.activation.redirect_ip = "192.0.2.7";
    nm.activation.redirect_port = 8090;
    EXPECT_EQ(bytes_of("http-active-redirected"), answer_to("active"));

    EXPECT_EQ(bytes_of("command-trigger"), nm_command_trigger(10));
    NmStrategy strategy = {"start", 60, "immediate_timing", 300};
    EXPECT_EQ(bytes_of("command-device-status"), nm_command_device_status(strategy));
    NmTunnel tunnel;
    tunnel.type = "remote-web";
    tunnel.port = 7001;
    tunnel.session = "s-2";
    EXPECT_EQ(bytes_of("command-remote-web"), nm_command_tunnel(tunnel));
}

// What is queued for one device is handed to that one, what is queued for any to who asks first.
TEST(Formats, SimulatedNmKeepsItsDevicesApart)
{
    NmSim nm;
    const auto word = [&](const char *serial) { return nm_reply_datagram_locked(&nm, serial).bytes; };
    const auto command = [&](const std::string &serial) {
        HttpRequest request;
        request.path = "/dev-api/" + serial + "/handshake";
        const std::string answer = nm_reply_request_locked(&nm, "handshake", request).bytes;
        return answer.substr(answer.find("[") + 1, answer.find("]") - answer.find("[") - 1);
    };
    nm.devices["B2"].commands.push_back("{\"n\":1}");
    nm.devices["A1"].restart_wanted = true;
    EXPECT_EQ((Texts{"rec", "ACTIVE", "", "ack", "{\"n\":1}"}),
              (Texts{word("A1"), word("A1"), command("A1"), word("B2"), command("B2")}));
    nm.devices[""].commands.push_back("{\"n\":2}");
    EXPECT_EQ((Texts{"ack", "{\"n\":2}", "ACTIVE"}), (Texts{word("A1"), command("A1"), word("B2")}));
}

TEST(Formats, SimulatedDevice)
{
    const std::string wire_length(4, '\0');
    for (const char *name : {"ping", "online-status", "result", "alarm"}) { // what it sends
        const std::string bytes = bytes_of(std::string("device-") + name), text = bytes.substr(wire_length.size());
        EXPECT_EQ(bytes, device_frame_bytes((unsigned)text.size(), text));
    }
    for (const char *name : {"pong", "online-status-ack", "result-ack", "alarm-ack", "command", "redirection",
                             "strategy"}) { // what it checks
        const std::string bytes = bytes_of(std::string("device-") + name), text = bytes.substr(wire_length.size());
        std::string type;
        EXPECT_EQ("", device_check_frame(text, &type)) << name;
    }
}

// The simulators' own judgement: each fault is named.
TEST(Formats, FaultsOfRequestsAndFrames)
{
    for (const Texts &row : examples("request-faults")) {
        SCOPED_TRACE(row[0]);
        std::string text = bytes_of("http-heartbeat-request"), wrong;
        HttpRequest request;
        text.replace(text.find(row[0]), row[0].size(), row[1]);
        if (http_request_cut(text + "POST", &request, &wrong) > 0)
            wrong = nm_check_request(request, "127.0.0.1:8080", "SN00000001");
        EXPECT_NE(std::string::npos, wrong.find(row[2])) << wrong;
    }
    std::string type;
    for (const Texts &row : examples("frame-faults"))
        EXPECT_EQ(row[1] == "yes", device_check_frame(row[0], &type).empty()) << row[0];
}

TEST(Formats, SimulatedTunnelEnds)
{
    const uint64_t id = 0xa500000000000001;
    const struct {
        const char *name;
        WebFrameType type;
        const char *payload;
    } rows[] = {
        {"web-request", WEB_FRAME_REQ, "GET / HTTP/1.1\r\nHost: device\r\n\r\n"},
        {"web-response", WEB_FRAME_RESP, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi"},
        {"web-device-closed", WEB_FRAME_DEV_DESTROY, ""},
        {"web-browser-closed", WEB_FRAME_WEB_DESTROY, ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(bytes_of(row.name), web_frame(row.type, id, row.payload));

    TunnelSimOptions options;
    options.auth = {"1.0", "SN00000001", "token", 1, "s-2"};
    TelnetTunnelSim nm(options);
    const int agent = client_connect(nm.command_port());
    fd_send(agent, bytes_of("tunnel-auth"));
    expect_from(agent, "telnet-answer");
    expect_from(agent, "telnet-init");
    EXPECT_EQ(Texts{}, nm.stats().problems);
    close(agent);
}
