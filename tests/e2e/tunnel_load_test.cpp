// The remote-web tunnel of the real binary with slow, stalled and hasty ends: nobody waits for another one's pace.
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tunnel_stage.h"

static std::string destroys(const std::vector<uint64_t> &ids)
{
    std::string frames;
    for (uint64_t id : ids)
        frames += web_frame(WEB_FRAME_WEB_DESTROY, id);
    return frames;
}

// Ten ids of that request have every slot.
static std::vector<uint64_t> ten_served(WebTunnelSim *web, const std::string &request, const std::string &answer)
{
    std::vector<uint64_t> ids;
    for (int i = 0; i < 10; i++) {
        ids.push_back(web_ask(web, request));
        EXPECT_TRUE(web_data_is(web, ids[i], answer));
    }
    return ids;
}

// NM takes 4 KB a second with a small buffer, or 20 over TLS with the system's, whose kernel then opens its window
// every 6 s: no byte is taken for longer than 2 s, but NM is alive. Then it takes nothing, and is given up after 7 s of
// that.
static void slow_nm(bool https)
{
    DeviceService files(serve_web_files);
    TunnelStage stage;
    stage.options.receive_buffer = https ? 0 : 4096;
    ASSERT_TRUE(tunnel_stage_start(&stage, https, &files, nullptr) && web_open(&stage));
    stage.web->read_slowly(https ? 20000 : 4000);
    const uint64_t id = web_ask(stage.web.get(), "3000000 7\n");
    EXPECT_FALSE(agent_wait_log(&stage.agent, "connection lost", 20000));
    const std::string data = stage.web->stats().ids.at(id).data;
    EXPECT_GT(data.size(), 50000u);
    EXPECT_TRUE(data == noise(3000000, 7).substr(0, data.size()));

    const long long stalled_ms = monotonic_ms();
    stage.web->stall_reading(true);
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Server remote-web connection lost! Destroy tunnel now."));
    EXPECT_LT(monotonic_ms() - stalled_ms, 12000);
}

TEST(TunnelLoad, SlowNmKeepsItsDownload)
{
    side_by_side(2, [](size_t https) { slow_nm(https != 0); });
}

// Ten ids have every slot, an eleventh waits, and only then NM closes the ten: first with the device's server down, so
// that the eleven wait for nothing.
TEST(TunnelLoad, DestroysBehindARequestThatWaits)
{
    DeviceService echo(serve_echo, false);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &echo, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    for (bool up : {false, true}) {
        SCOPED_TRACE(up);
        std::vector<uint64_t> old = up ? ten_served(web, "old", "old") : std::vector<uint64_t>(), fresh;
        while (old.size() < 10) {
            old.push_back(web_ask(web, "old"));
            ASSERT_TRUE(agent_wait_log(&stage.agent, "Create connection to IP"));
        }
        const uint64_t eleventh = web_ask(web, "eleventh");
        ASSERT_TRUE(agent_wait_log(&stage.agent, "Wait a moment for resource!"));
        if (up) {
            const uint64_t twelfth = web_ask(web, "twelfth"); // stands before the destroys
            web->send_bytes(destroys(old));
            EXPECT_TRUE(web_data_is(web, eleventh, "eleventh") && web_data_is(web, twelfth, "twelfth"));
            EXPECT_TRUE(echo.wait_serving(2));
            break;
        }
        echo.open();
        old.push_back(eleventh);
        web->send_bytes(destroys(old));
        for (int i = 0; i < 3; i++)
            fresh.push_back(web_ask(web, "fresh"));
        for (uint64_t id : fresh)
            EXPECT_TRUE(web_data_is(web, id, "fresh"));
        EXPECT_TRUE(echo.wait_serving(3));
        web->send_bytes(destroys(fresh));
        ASSERT_TRUE(echo.wait_serving(0));
    }
}

// Whatever ends first, the id or the wait for its slot: no connection of an id stays behind when NM has closed it.
TEST(TunnelLoad, NothingStaysBehindAnId)
{
    std::atomic<int> heard{0};
    DeviceService device([&](int fd) {
        for (std::string line; !(line = fd_read_line(fd)).empty(); fd_send(fd, line))
            heard++;
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &device, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    std::string burst;
    for (int i = 0; i < 25; i++) {
        const uint64_t id = web->open_id();
        burst += web_frame(WEB_FRAME_REQ, id, "a line\n") + web_frame(WEB_FRAME_WEB_DESTROY, id);
    }
    web->send_bytes(burst);
    EXPECT_TRUE(eventually([&] { return heard == 25; }) && device.wait_serving(0, 5000))
        << heard << " heard, " << device.accepted() << " connections";
    device.hang_up();

    enum When { DESTROYED_WAITING, DESTROYED_SERVED, NM_LOST };
    for (When when : {DESTROYED_WAITING, DESTROYED_SERVED, NM_LOST}) {
        SCOPED_TRACE(when);
        const int before = device.accepted();
        (void)ten_served(web, "ten\n", "ten");
        const uint64_t eleventh = web_ask(web, "eleventh\n");
        ASSERT_TRUE(agent_wait_log(&stage.agent, "no resource, handle directly") &&
                    agent_wait_log(&stage.agent, "Wait a moment for resource!"));
        EXPECT_EQ(before + 10, device.accepted());
        if (when == DESTROYED_WAITING)
            web->send_bytes(destroys({eleventh}));
        if (when == NM_LOST)
            web->close_agent(true);
        device.hang_up();
        if (when == DESTROYED_SERVED) {
            ASSERT_TRUE(web_data_is(web, eleventh, "eleventh"));
            web->send_bytes(destroys({eleventh}));
        }
        if (when != NM_LOST) {
            const uint64_t last = web_ask(web, "last\n");
            EXPECT_TRUE(web_data_is(web, last, "last"));
            web->send_bytes(destroys({last}));
        }
        EXPECT_TRUE(device.wait_serving(0, 5000));
        device.hang_up();
    }
    EXPECT_TRUE(agent_wait_log(&stage.agent, "Server remote-web connection lost! Destroy tunnel now."));
    EXPECT_FALSE(agent_has_log(stage.agent, "The end stage")); // the ten ends of which NM could not be told
}

// A browser closes its connection and opens one under the same id while the first request still waits for a slot: the
// first one ends behind its bytes, the second one keeps a connection of its own.
TEST(TunnelLoad, AnIdIsUsedAgainWhileItsFirstRequestWaits)
{
    std::atomic<int> ended{0};
    DeviceService device([&](int fd) {
        const std::string said = fd_read(fd, 6);
        fd_send(fd, said == "first!" ? "" : said);
        ended += fd_read_all(fd).empty() && said == "first!";
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &device, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    for (bool slot_comes_first : {false, true}) {
        SCOPED_TRACE(slot_comes_first);
        std::vector<uint64_t> ids = ten_served(web, "others", "others");
        const uint64_t id = web->open_id();
        const std::string first = web_frame(WEB_FRAME_REQ, id, "first!") + destroys({id}), slot = destroys({ids[0]});
        const std::string second = web_frame(WEB_FRAME_REQ, id, "second");
        web->send_bytes(first + (slot_comes_first ? slot + second : second + slot));
        EXPECT_TRUE(web_data_is(web, id, "second"));
        EXPECT_TRUE(eventually([&] { return ended == 1 + slot_comes_first; }));
        EXPECT_TRUE(device.wait_serving(10)); // the second one's is one of them
        ids[0] = id;
        web->send_bytes(destroys(ids));
        ASSERT_TRUE(device.wait_serving(0));
    }
}

// NM has closed the id, and the device takes no byte of what is left: it is given up after 7 s.
TEST(TunnelLoad, ADeviceThatTakesNothingIsGivenUp)
{
    DeviceService deaf(
        [](int fd) {
            struct pollfd end = {fd, 0, 0};
            poll(&end, 1, k_socket_wait_ms);
        },
        true, 4096);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &deaf, nullptr) && web_open(&stage));
    const std::pair<int, int> idle = proc_usage_at_rest(stage.agent.pid);
    const uint64_t id = web_ask(stage.web.get(), noise(200000, 1));
    stage.web->send_bytes(destroys({id}));
    ASSERT_TRUE(deaf.wait_serving(1));
    const long long begin_ms = monotonic_ms();
    EXPECT_TRUE(proc_usage_returns(stage.agent.pid, idle));
    EXPECT_NEAR(monotonic_ms() - begin_ms, 7750, 1250);
}

// The device refuses an upload at its beginning; the browser still sends. NM's way is full, so that the answer waits in
// the agent while the rest of the upload comes.
TEST(TunnelLoad, EarlyAnswerArrivesAndEndsTheUpload)
{
    const std::string refusal = "413 " + noise(30000, 4);
    std::atomic<int> ended{0};
    DeviceService device([&](int fd) {
        const std::string how = fd_read_line(fd);
        while (how == "flood" && fd_send(fd, noise(16384, 3))) {
        }
        fd_send(fd, refusal);
        if (how != "close")
            shutdown(fd, SHUT_WR);
        ended++;
        struct pollfd gone = {fd, 0, 0};
        if (how == "half, deaf")
            poll(&gone, 1, k_socket_wait_ms);
        if (how == "half, reads on")
            fd_read_all(fd);
    });
    TunnelStage stage;
    stage.options.receive_buffer = 8192;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &device, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    web->read_slowly(100000);
    const uint64_t flood = web_ask(web, "flood\n");
    ASSERT_TRUE(web->wait(k_wait_ms, [&](const WebTunnelStats &s) { return s.ids.at(flood).bytes_in > 200000; }));
    uint64_t id = 0;
    for (const char *how : {"half, reads on", "half, deaf", "close"}) {
        SCOPED_TRACE(how);
        const int accepted = device.accepted(), before = ended;
        id = web_ask(web, how + ("\n" + noise(7000, 1)));
        ASSERT_TRUE(eventually([&] { return ended > before; }) && (*how != 'c' || device.wait_serving(1)));
        web_request(web, id, noise(40000, 2));
        for (int i = 0; i < 4 && *how == 'c'; i += web->stats().ids.at(id).dev_destroys != 0) {
            usleep(200 * 1000); // its rest comes slowly, on behind the end
            web_request(web, id, "rest");
        }
        EXPECT_TRUE(web_is_ended(web, id));
        const WebIdStats of_id = web->stats().ids.at(id);
        EXPECT_TRUE(of_id.data == refusal) << of_id.data.size();
        EXPECT_EQ(1u, of_id.dev_destroys);
        EXPECT_EQ(accepted + 1, device.accepted());
    }
    const int accepted = device.accepted();
    usleep(600 * 1000);
    web_request(web, id, "close\n"); // what comes after a pause is a new request
    EXPECT_TRUE(eventually([&] { return device.accepted() == accepted + 1; }));
}

// One id chatters, two upload to connections that take 4 KB a second and nothing for 8 s: another one's request is
// answered all the same, and nothing is lost.
TEST(TunnelLoad, EachIdAtItsOwnPace)
{
    DeviceService device(
        [](int fd) {
            char first;
            recv(fd, &first, 1, MSG_PEEK);
            first == 'e' ? serve_echo(fd) : serve_web_files(fd);
        },
        true, 4096);
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &device, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    std::vector<uint64_t> uploads;
    const struct {
        const char *what;
        int chatter_ms; // between two messages; 0: none
        bool uploads;
    } rows[] = {{"chatter", 5, false}, {"uploads", 0, true}, {"both", 20, true}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const uint64_t chatter = web_ask(web, "e");
        size_t said = 1;
        std::atomic<bool> done{false};
        std::thread talk([&] {
            for (; row.chatter_ms != 0 && !done; said += 20) {
                web_request(web, chatter, std::string(20, 'e'));
                std::this_thread::sleep_for(std::chrono::milliseconds(row.chatter_ms));
            }
        });
        if (row.uploads && uploads.empty()) {
            uploads.push_back(web_ask(web, "+24000 1024 250\n" + noise(24000, 1)));
            uploads.push_back(web_ask(web, "+60000 30000 8000\n" + noise(60000, 1)));
        }
        std::vector<uint64_t> asked;
        int late = 0;
        for (int i = 0; i < 8; i++) {
            asked.push_back(web_ask(web, "1000 3\n"));
            late += !web->wait(300, [&](const WebTunnelStats &s) { return s.ids.at(asked[i]).data.size() == 1000; });
        }
        EXPECT_LE(late, 1); // the machine may have been busy once
        done = true;
        talk.join();
        for (uint64_t id : asked)
            EXPECT_TRUE(web_data_is(web, id, noise(1000, 3)));
        EXPECT_TRUE(web_data_is(web, chatter, std::string(said, 'e')));
    }
    for (uint64_t id : uploads)
        EXPECT_TRUE(web_data_is(web, id, "ok"));
}

// What NM pushes at a device that takes nothing waits at NM, not in the agent.
TEST(TunnelLoad, HeldBytesAreBounded)
{
    std::promise<void> go;
    std::shared_future<void> gone(go.get_future());
    DeviceService device([gone](int fd) {
        gone.wait();
        serve_web_files(fd);
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &device, nullptr) && web_open(&stage));
    WebTunnelSim *web = stage.web.get();
    const int rss_kib = proc_rss_kib(stage.agent.pid);
    const size_t size = 10u << 20;
    const uint64_t id = web_ask(web, "+" + std::to_string(size) + "\n" + noise(size, 1));
    size_t left = size, before = 0;
    EXPECT_TRUE(eventually([&] {
        before = left;
        left = web->unsent();
        return left == before && left < size;
    }));
    EXPECT_GT(left, size / 4);
    EXPECT_FALSE(agent_wait_log(&stage.agent, "tcp_send failed", 4000));
    EXPECT_TRUE(!proc_rss_counts() || proc_rss_kib(stage.agent.pid) < rss_kib + 1024);
    go.set_value();
    const long long begin_ms = monotonic_ms();
    EXPECT_TRUE(web_data_is(web, id, "ok"));
    EXPECT_LT(monotonic_ms() - begin_ms, 4000); // segments whose acknowledgement is delayed take longer
}

// The device answers and closes at any moment, also between two looks at its connection.
TEST(TunnelLoad, AnswersOfDevicesThatCloseAtOnce)
{
    DeviceService hasty([](int fd) {
        const std::string line = fd_read_line(fd);
        usleep((useconds_t)atoi(line.c_str()));
        fd_send(fd, line + "\n");
    });
    TunnelStage stage;
    ASSERT_TRUE(tunnel_stage_start(&stage, false, &hasty, nullptr) && web_open(&stage));
    int answered = 0;
    for (int round = 0; round < 200; round++) {
        std::map<uint64_t, std::string> asked;
        for (int i = 0; i < 10; i++) {
            const std::string pause_us = std::to_string(8000 + round * 7 + i * 450) + "\n";
            asked[web_ask(stage.web.get(), pause_us)] = pause_us;
        }
        for (const auto &one : asked) {
            ASSERT_TRUE(web_is_ended(stage.web.get(), one.first));
            answered += stage.web->stats().ids.at(one.first).data == one.second;
        }
    }
    EXPECT_EQ(2000, answered);
}
