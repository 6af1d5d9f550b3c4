#include "nm/activation.h"

#include <gtest/gtest.h>

#include "log_capture.h"
#include "nm/device_init.h"
#include "peer.h"
#include "runtime/text.h"
#include "transport/conn_registry.h"
#include "transport/nm_sign.h"

static void identity_set(const std::string &nm_port)
{
    nm_set(nm_port);
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    PluginInfo *next = &edit.next;
    plugin_info_edit_text(&edit, next->category, "3");
    plugin_info_edit_text(&edit, next->pname, "box");
    plugin_info_edit_text(&edit, next->pversion, "2.0");
    plugin_info_edit_text(&edit, next->mac, "00:aa");
    plugin_info_edit_text(&edit, next->local_ip, "127.0.0.1");
    plugin_info_edit_text(&edit, next->platform_name, "pl");
    plugin_info_edit_text(&edit, next->factory_name, "fa");
    plugin_info_edit_text(&edit, next->udp_detection.remote_ip, "0");
    plugin_info_edit_text(&edit, next->udp_detection.remote_port, "0");
    next->nm_redirected = 0;
    plugin_info_edit_mark(&edit, &next->nm_redirected, sizeof(next->nm_redirected));
    plugin_info_edit_commit(&edit);
}

static PluginInfo info_now()
{
    PluginInfo info;
    plugin_info_get(&info);
    return info;
}

static std::string cause_now()
{
    char cause[DMA_CAUSE_SIZE];
    dma_status_get(cause);
    return cause;
}

static const std::string k_ok = "HTTP/1.1 200 OK\r\n\r\n";

TEST(activation, answers)
{
    static const struct {
        const char *answer;
        int result; // only zero or not counts
        const char *cause;
        const char *server; // detection server afterwards
        const char *line;
    } rows[] = {
        {R"({"status":200,"result":{"host":"127.0.0.9","port":65535}})", 0, "old", "127.0.0.9:65535",
         "[INF] Activate device: A1 successfully!"},
        {R"({"status":201,"result":{"host":"127.0.0.9","port":0}})", 0, "old", "127.0.0.9:0",
         "[WRN] The device TCP connection is lost!"},
        {R"({"status":201})", -1, "", ":-1", "[ERR] msg is NULL!"},
        {R"({"status":200,"result":{"host":"127.0.0.9"}})", -1, "", "127.0.0.9:-1", "[ERR] Invalid port: -1!"},
        {R"({"status":200,"result":{"host":"127.0.0.9","port":65536}})", -1, "", "127.0.0.9:65536",
         "[INF] Activate device: A1 failed! Response is invalid!"},
        {R"({"status":200,"result":{"port":1}})", -1, "", ":1",
         "[INF] Activate device: A1 failed! Response is invalid!"},
        {R"({"status":200,"result":{"host":"no-such-host.invalid","port":1}})", -1, "", "no-such-host.in:1",
         "[INF] Activate device: A1 failed! Response is invalid!"},
        {R"({"status":200})", -1, "", ":-1", "[ERR] Invalid port: -1!"},
        {R"({"status":403,"error":"not \"known\""})", -1, "not \"known\"", "0:0", "[INF] Activate device: A1 failed!"},
        {R"({"status":500})", -1, "", "0:0", "[INF] Activate device: A1 failed!"},
        {R"({"status":304,"result":{"redirection":[{"type":"UDP"}]}})", -1, "REDIRECTION", "0:0",
         "[WRN] The device TCP connection is lost!"},
        {"", -1, "", "0:0", "[WRN] Error before JSON content: "},
        {"{]}", -1, "", "0:0", "[WRN] Error before JSON content: }"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        LogLines log;
        Peer nm(answering({k_ok + row.answer}));
        identity_set(nm.port);
        set_dma_cause("old");

        EXPECT_EQ(row.result == 0, device_activate() == 0);
        EXPECT_EQ(row.cause, cause_now());
        Endpoint server = info_now().udp_detection;
        EXPECT_EQ(row.server, std::string(server.remote_ip) + ":" + server.remote_port);
        EXPECT_TRUE(log.has(row.line));
        EXPECT_TRUE(log.has(std::string("[INF] Device activate rsp: ") + row.answer));
        EXPECT_EQ(nm.port, info_now().nm_port);
    }
}

TEST(activation, redirections)
{
    static const struct {
        const char *redirection; // JSON
        const char *nm;          // afterwards
        int redirected;
    } rows[] = {
        {R"([{"type":"UDP","ip":"127.0.0.3","port":1},{"type":"nms","ip":"localhost","port":8443},
             {"type":"NMS","ip":"127.0.0.4","port":2}])",
         "https 127.0.0.1:8444", 1},
        {R"([{"type":"NMS","ip":"127.0.0.3"}])", "http 127.0.0.3:80", 0},
        {R"([{"type":"NMS","ip":"no-such-host.invalid","port":1}])", "http 127.0.0.1:80", 0},
        {R"([{"type":"NMS","port":1},{"type":"NMS","ip":"127.0.0.3","port":1}])", "http 127.0.0.1:80", 0},
        {R"([7,null,{"type":7,"ip":"127.0.0.3","port":1}])", "http 127.0.0.1:80", 0},
        {R"({"a":{"type":"NMS","ip":"127.0.0.3","port":1}})", "http 127.0.0.1:80", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.redirection);
        LogLines log;
        identity_set("80");
        cJSON *root = cJSON_Parse((std::string("{\"result\":{\"redirection\":") + row.redirection + "}}").c_str());
        redirection_handle(root);
        cJSON_Delete(root);
        PluginInfo info = info_now();
        EXPECT_EQ(row.nm, std::string(info.nm_method) + " " + info.nm_ip + ":" + info.nm_port);
        EXPECT_EQ(row.redirected, info.nm_redirected);
        EXPECT_EQ(row.redirected, log.count(std::string("[INF] Will redirect to the new NMS: ") + info.nm_ip));
        EXPECT_TRUE(log.has("[WRN] The device TCP connection is lost!"));
    }
}

TEST(activation, the_device_is_told_of_a_redirection)
{
    LogLines log;
    std::string frames;
    const std::string small = "{\t\"type\":\"redirection\",\t\"ver\":\"1.3\",\t\"result\":{\n\t\"port\":\t8443\n}}";
    const std::string long_result = "{\"a\":\"" + std::string(600, 'x') + "\"}";
    std::string cut = ("{\t\"type\":\"redirection\",\t\"ver\":\"1.3\",\t\"result\":" + long_result).substr(0, 506);
    {
        Peer device([&](int listener) {
            int fd = peer_accept(listener);
            frames = read_upto(fd, 4 + small.size() + 4 + cut.size());
            close(fd);
        });
        identity_set("80");
        conn_add(DEV_TCP, tcp_connect("127.0.0.1", device.port.c_str(), nullptr, nullptr, 0, 0), 1);
        cJSON *root = cJSON_Parse(R"({"result":{"port":8443}})");
        redirection_handle(root);
        cJSON_Delete(root);
        redirection_to_device(long_result.c_str());
    }
    char lengths[2][4];
    le32_put(lengths[0], (uint32_t)small.size());
    le32_put(lengths[1], (uint32_t)cut.size());
    EXPECT_EQ(std::string(lengths[0], 4) + small + std::string(lengths[1], 4) + cut, frames);
    EXPECT_TRUE(log.has("[INF] Send redirection to device, payload_len: 506, content: " + cut + "\n"));
}
