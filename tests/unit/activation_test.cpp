#include "nm/activation.h"

#include "device/dma_status_internal.h"
#include "peers.h"

TEST(activation, answers)
{
    for (const Texts &row : examples("activation")) {
        SCOPED_TRACE(row[0]);
        LogLines log;
        NmPeer nm;
        nm.answer_set("active", {http_ok(row[0])});
        info_edit([](PluginInfo *next) {
            (void)text_set(next->local_ip, "127.0.0.1");
            (void)text_set(next->udp_detection.remote_ip, "10.0.0.1");
            (void)text_set(next->udp_detection.remote_port, "7");
        });
        set_dma_cause("earlier");
        char cause[DMA_CAUSE_SIZE];
        EXPECT_EQ(row[1], device_activate() == 0 ? "good" : "fails");
        dma_status_get(cause);
        EXPECT_EQ(row[2], cause);
        Endpoint server = info_now().udp_detection;
        EXPECT_EQ(row[3], std::string(server.remote_ip) + ":" + server.remote_port);
        EXPECT_TRUE(log.has(row[4]));
        EXPECT_TRUE(log.has(std::string("[INF] Device activate rsp: ") + row[0]));
        EXPECT_EQ(nm.port, info_now().nm_port);
    }
}

TEST(activation, status_texts)
{
    LogLines log;
    std::string texts;
    for (uint32_t status = DMA_OFFLINE; status <= DMA_ONLINE + 1; status++) {
        char cause[DMA_CAUSE_SIZE];
        dma_status_set((DmaStatus)status, DMA_CAUSE_CLEAR);
        texts += dma_status_describe(cause) + std::string(" ");
    }
    EXPECT_EQ(
        "offline plugin_initialization_failed device_center_request_failed device_activation_failed online offline ",
        texts);
}
