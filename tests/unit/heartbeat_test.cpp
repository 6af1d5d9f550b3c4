#include "nm/heartbeat.h"

#include "nm/nm_msg_table.h"
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

// NM's detection server, which always has a command.
struct AckPeer {
    std::string port;
    int fd = bound_socket(SOCK_DGRAM, &port);
    std::thread thread{[this] {
        char beat[256];
        sockaddr_in from;
        for (socklen_t len = sizeof(from); recvfrom(fd, beat, sizeof(beat), 0, (sockaddr *)&from, &len) > 0;)
            sendto(fd, "ack", 3, 0, (sockaddr *)&from, len);
    }};
    ~AckPeer()
    {
        shutdown(fd, SHUT_RDWR);
        thread.join();
        close(fd);
    }
};

// Eight handshakes at once, one of them at its command, the others with an NM that does not even answer their TLS: the
// ninth takes the place of the oldest without an answer.
TEST(Heartbeat, HungHandshakesGiveWay)
{
    start_process_once();
    nm_msg_table_init();
    AckPeer detection;
    int device = device_link();
    std::string silent_port, tunnel_port;
    int silent = listen_socket(&silent_port), tunnel = listen_socket(&tunnel_port);
    info_edit([&](PluginInfo *next) { endpoint_set(&next->udp_detection, detection.port); });
    NmPeer nm;
    const std::string tunnel_start = R"({"result":{"payload":[{"type":"remote-telnet","param":{"action":"start",)"
                                     R"("host":"127.0.0.1","token":"t","key":7,"sessionid":"s","port":)";
    nm.answer_set("handshake", {http_ok(tunnel_start + tunnel_port + "}}]}}"),
                                http_ok(R"({"result":{"payload":[{"type":"ping"}]}})")});
    g_init_done = 1;
    heartbeat_reset();
    LogLines log;
    std::vector<std::thread> beats;
    std::vector<int> hung;
    beats.emplace_back([] { udp_handler(nullptr); });
    int command = accept(tunnel, nullptr, nullptr);
    EXPECT_EQ('{', fd_read(command, 1)[0]); // the command awaits NM's answer to its authentication, for 5 s
    nm_set(silent_port, "https");
    for (int i = 0; i < 7; i++) {
        beats.emplace_back([] { udp_handler(nullptr); });
        hung.push_back(accept(silent, nullptr, nullptr));
        EXPECT_EQ(1u, fd_read(hung.back(), 1).size());
    }
    nm_set(nm.port);
    udp_handler(nullptr);
    EXPECT_EQ("{\"type\":\"ping\"}", device_read(device));
    beats[1].join();
    EXPECT_EQ(1, log.count("Handshaking failed!"));
    EXPECT_FALSE(log.has("Process handshake response failed!")); // the command was left alone

    restart_device_init(); // ends the others, the command included
    for (size_t i = 0; i < beats.size(); i++) {
        if (i != 1)
            beats[i].join();
    }
    EXPECT_EQ(7, log.count("Handshaking failed!"));
    EXPECT_FALSE(log.has("response timeout!"));
    alarm(0);
    hung.insert(hung.end(), {device, silent, tunnel, command});
    for (int fd : hung)
        close(fd);
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
