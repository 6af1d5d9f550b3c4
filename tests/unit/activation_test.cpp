#include "nm/activation.h"

#include "device/dma_status_internal.h"
#include "peers.h"

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
        {R"({"status":200,"result":{"host":"no-such-host.invalid","port":1}})", -1, "", "no-such-host.in:1",
         "[INF] Activate device: A1 failed! Response is invalid!"},
        {R"({"status":200})", -1, "", ":-1", "[ERR] Invalid port: -1!"},
        {R"({"status":403,"error":"not \"known\""})", -1, "not \"known\"", "0:0", "[INF] Activate device: A1 failed!"},
        {R"({"status":304,"result":{"redirection":[{"type":"UDP"}]}})", -1, "REDIRECTION", "0:0",
         "[WRN] The device TCP connection is lost!"},
        {"", -1, "", "0:0", "[WRN] Error before JSON content: "},
        {"{]}", -1, "", "0:0", "[WRN] Error before JSON content: }"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        LogLines log;
        NmPeer nm;
        nm.answer_set("active", {http_ok(row.answer)});
        info_edit([](PluginInfo *next) {
            (void)text_set(next->local_ip, "127.0.0.1");
            (void)text_set(next->udp_detection.remote_ip, "0");
            (void)text_set(next->udp_detection.remote_port, "0");
        });
        set_dma_cause("old");
        char cause[DMA_CAUSE_SIZE];
        EXPECT_EQ(row.result == 0, device_activate() == 0);
        dma_status_get(cause);
        EXPECT_STREQ(row.cause, cause);
        Endpoint server = info_now().udp_detection;
        EXPECT_EQ(row.server, std::string(server.remote_ip) + ":" + server.remote_port);
        EXPECT_TRUE(log.has(row.line));
        EXPECT_TRUE(log.has(std::string("[INF] Device activate rsp: ") + row.answer));
        EXPECT_EQ(nm.port, info_now().nm_port);
    }
}
