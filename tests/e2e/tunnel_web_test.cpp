// The remote-web tunnel of the real binary: bytes, frames and slots.
#include <atomic>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tunnel_stage.h"

static const size_t k_mib = 1024 * 1024;

// Ten browsers load 1 MiB each at the same time, then one sends as much.
static void transfers_whole(bool https)
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, https, &files, nullptr) && web_open(&stage));
    const int port = stage.web->client_port();
    side_by_side(10, [port](size_t i) {
        const std::string line = std::to_string(k_mib) + " " + std::to_string(i) + "\n";
        EXPECT_TRUE(answer_of(port, line) == noise(k_mib, (unsigned)i)) << "browser " << i;
    });
    for (const char *pace : {"", " 2048 1"}) // the second keeps the agent's send buffer full nearly all the time
        EXPECT_EQ("ok", answer_of(port, "+" + std::to_string(k_mib) + pace + "\n" + noise(k_mib, 1))) << pace;
    EXPECT_EQ(10240u, stage.web->stats().frame_in_max);
    EXPECT_TRUE(files.wait_serving(0));
}

TEST(TunnelWeb, TransfersWhole)
{
    side_by_side(2, [](size_t https) { transfers_whole(https != 0); });
}

// A negative frame size in config.ini counts as the default.
TEST(TunnelWeb, AnswersInFramesOfTheSetSize)
{
    std::atomic<long long> answered_ms{0};
    DeviceService files([&](int fd) {
        char byte;
        recv(fd, &byte, 1, MSG_PEEK);
        answered_ms = monotonic_ms();
        serve_web_files(fd);
    });
    TunnelStage stage;
    config_set(&stage.config, "plugin_config:web_pf_forward_len", "-5");
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &files, nullptr) && web_open(&stage));
    const uint64_t id = web_ask(stage.web.get(), "25000 3\n");
    ASSERT_TRUE(web_is_ended(stage.web.get(), id));
    EXPECT_GE(monotonic_ms() - answered_ms, 19); // three frames, 10 ms apart by a clock of whole ms
    const WebIdStats of_id = stage.web->stats().ids.at(id);
    EXPECT_EQ(std::vector<uint32_t>({10240, 10240, 4520}), of_id.frame_sizes);
    EXPECT_EQ(noise(25000, 3), of_id.data);
    EXPECT_EQ(1u, of_id.dev_destroys);
}

TEST(TunnelWeb, FramesCutAnywhereAndManyAtOnce)
{
    DeviceService echo(serve_echo, false);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &echo, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    const uint64_t id = web_ask(web, "lost");
    ASSERT_TRUE(agent_wait_log(
        &stage.agent, "Create connection to IP: 127.0.0.1, Port: " + std::to_string(echo.port()) + " failed!"));
    echo.open();
    const std::string frame = web_frame(WEB_FRAME_REQ, id, "hello");
    std::string expected;
    for (size_t cut = 1; cut < frame.size(); cut++) {
        web->send_bytes(frame.substr(0, cut));
        ASSERT_TRUE(agent_wait_log(&stage.agent, "Receive remote-web message from"));
        web->send_bytes(frame.substr(cut));
        ASSERT_TRUE(agent_wait_log(&stage.agent, "Receive remote-web message from"));
        expected += "hello";
    }
    EXPECT_TRUE(web_data_is(web, id, expected));

    std::string burst; // with frames that mean nothing between them
    for (int i = 0; i < 400; i++) {
        const std::string payload = std::to_string(i) + ",";
        burst += web_frame(WEB_FRAME_REQ, id, payload) + web_frame(9, id, "?") + web_frame(WEB_FRAME_WEB_DESTROY, ~id);
        expected += payload;
    }
    web->send_bytes(burst);
    EXPECT_TRUE(web_data_is(web, id, expected));

    const std::string longest = noise(k_web_payload_max, 5); // fills the agent's buffer to the last byte
    web->send_bytes(web_frame(WEB_FRAME_REQ, id, longest));
    expected += longest;
    EXPECT_TRUE(web_data_is(web, id, expected));
}

// One record brings many frames and the beginning of the next; later records must not wait inside the TLS session for
// bytes that never come.
TEST(TunnelWeb, ManyFramesInOneTlsRecord)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, true, &echo, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    uint64_t ids[8];
    std::string expected[8];
    for (uint64_t &id : ids)
        id = web->open_id();
    std::string stream;
    for (unsigned i = 0; stream.size() < 400000; i++) {
        const std::string payload = noise(i % 7 == 0 ? 12000 : 40 + i % 500, i);
        stream += web_frame(WEB_FRAME_REQ, ids[i % 8], payload);
        expected[i % 8] += payload;
    }
    for (size_t sent = 0; sent < stream.size(); sent += 16384)
        web->send_bytes(stream.substr(sent, 16384));
    for (int i = 0; i < 8; i++)
        ASSERT_TRUE(web_data_is(web, ids[i], expected[i])) << "id " << i;
    // Half a frame in the agent's buffer, then a full record: it does not fit, and its rest is the last that NM has to
    // say.
    const std::string cut = web_frame(WEB_FRAME_REQ, ids[0], noise(15000, 1));
    const std::string last = web_frame(WEB_FRAME_REQ, ids[1], noise(16384 - 5000 - k_web_header_size, 2));
    web->send_bytes(cut.substr(0, cut.size() - 5000));
    ASSERT_TRUE(agent_wait_log(&stage.agent, "length = 15000, type = 2"));
    web->send_bytes(cut.substr(cut.size() - 5000) + last);
    EXPECT_TRUE(web_data_is(web, ids[0], expected[0] + noise(15000, 1)));
    EXPECT_TRUE(web_data_is(web, ids[1], expected[1] + last.substr(k_web_header_size)));
}

// Whatever ends a tunnel or blocks it, the next one works: lengths that no frame of NM has, NM's end of the connection,
// NM's second start.
TEST(TunnelWeb, TunnelsAreReplaced)
{
    DeviceService echo(serve_echo);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &echo, nullptr));
    WebTunnelSim *web = stage.web.get();
    for (uint32_t length : {k_web_payload_max + 1, 0x7FFFFFFFu, 0xFFFFFFEFu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(length);
        ASSERT_TRUE(web_open(&stage));
        web->send_bytes(web_header(WEB_FRAME_REQ, web->open_id(), length) + std::string(20000, 'x'));
        EXPECT_TRUE(agent_wait_log(&stage.agent, "len: 0!"));
        EXPECT_EQ(0, echo.accepted());
        ASSERT_TRUE(web_close(&stage));
    }
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset);
        ASSERT_TRUE(web_open(&stage));
        ASSERT_TRUE(web_data_is(web, web_ask(web, "hello"), "hello"));
        web->close_agent(reset);
        EXPECT_TRUE(agent_wait_log(&stage.agent, "Server remote-web connection lost! Destroy tunnel now."));
        EXPECT_TRUE(echo.wait_serving(0));
    }
    ASSERT_TRUE(web_open(&stage));
    const uint64_t id = web_ask(web, "before");
    ASSERT_TRUE(web_data_is(web, id, "before"));
    ASSERT_TRUE(web_open(&stage)); // device connections outlive NM's second start
    web_request(web, id, ", after");
    EXPECT_TRUE(web_data_is(web, id, "before, after"));
    EXPECT_EQ(3, echo.accepted());
}
