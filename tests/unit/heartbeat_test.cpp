#include "nm/heartbeat.h"

#include "nm/device_init.h"
#include "peers.h"

// While one exchange waits for its answer, a further expiry sends nothing; one that lost its bring-up counts nothing.
TEST(Heartbeat, OverlapAndCallOff)
{
    start_process_once();
    NmPeer nm;
    std::string port;
    int device = device_link(), udp = bound_socket(SOCK_DGRAM, &port);
    info_edit([&](PluginInfo *next) {
        (void)text_set(next->udp_detection.remote_ip, "127.0.0.1");
        (void)text_set(next->udp_detection.remote_port, port.c_str());
    });
    g_init_done = 1;
    heartbeat_reset();
    LogLines log;
    std::thread first([] { udp_handler(nullptr); });
    EXPECT_TRUE(readable_within(udp, 5000));
    udp_handler(nullptr);
    restart_device_init();
    first.join();
    EXPECT_EQ(log.count("Sending UDP detection... "), 1);
    EXPECT_FALSE(log.has("udp_recv error"));
    EXPECT_EQ(nm.now(&NmPeer::paths), Texts{}); // called off: no post
    close(device);
    close(udp);
}
