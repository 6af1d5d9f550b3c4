#include "nm/heartbeat.h"

#include "nm/nm_session.h"
#include "peers.h"

// While one exchange waits for its answer, a further expiry sends nothing; one that lost its bring-up counts nothing.
TEST(Heartbeat, OverlapAndCallOff)
{
    start_process_once();
    NmPeer nm;
    std::string port;
    int device = device_link(), udp = bound_socket(SOCK_DGRAM, &port);
    info_edit([&](PluginInfo *next) { endpoint_set(&next->udp_detection, port); });
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

// The period that is in force already changes nothing: the timer would begin anew, and the beat never come.
TEST(Heartbeat, SamePeriodIsNoChange)
{
    start_process_once();
    LogLines log(6);
    for (const char *period : {"7", "7", "6"}) {
        const std::string trigger = std::string("{\"type\":\"trigger\",\"param\":{\"period\":") + period + "}}";
        EXPECT_EQ(0, udp_detection_interval_handle(0, nullptr, trigger.c_str(), (uint32_t)trigger.size()));
    }
    EXPECT_EQ(2, log.count("Changing UDP detection interval from: "));
    EXPECT_EQ(2, log.count("Start timer for"));
    nm_session_open([](PluginTimer *) {}, [](PluginTimer *) {}); // a restart stops what was started
    restart_device_init();
    alarm(0);
}
