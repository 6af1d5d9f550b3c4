#include "peers.h"

#include "runtime/stop_internal.h"
#include "transport/conn_send_internal.h"

static const char k_ip[] = "127.0.0.1";

TEST(Socket, ConnectFailuresSayWhatTheyAre)
{
    std::string port, dead;
    int listener = listen_socket(&port);
    close(listen_socket(&dead)); // nobody listens there any more
    std::string dead_ends = "Could not make connection [remote (127.0.0.1:" + dead + "), local (0.0.0.0:0)]";
    const Texts unresolved = {"Could not resolve host: ", "TCP connect failed!"};
    const Texts refused = {"Connecting to 127.0.0.1:",
                           "Connection timeout(Connection refused)... socket: ",
                           "Connection failed...",
                           "Shutdown and close socket: ",
                           dead_ends,
                           "TCP connect failed!"};
    const Texts unbound = {"Binding failed", "Shutdown and close socket: ", ", local (192.0.2.1:0)]",
                           "TCP connect failed!"};
    const struct {
        const char *remote_ip, *remote_port, *local_ip, *local_port;
        int fd;
        Texts lines;
    } cases[] = {
        {nullptr, nullptr, nullptr, nullptr, 0, {"remote_ip is NULL!", "remote_port is NULL!"}},
        {"no.such.host.invalid", "1", nullptr, nullptr, 0, unresolved},
        {k_ip, port.c_str(), "", "", 0, unresolved},
        {k_ip, "-1", nullptr, nullptr, 0, unresolved},
        {k_ip, dead.c_str(), nullptr, nullptr, -1, refused},
        {k_ip, port.c_str(), "192.0.2.1", "0", -1, unbound},
    };
    int before = open_descriptors();
    for (const auto &c : cases) {
        LogLines log;
        SocketConn conn = tcp_connect(c.remote_ip, c.remote_port, c.local_ip, c.local_port, 0, 0);
        EXPECT_EQ(c.fd, conn.socket_fd);
        EXPECT_EQ(nullptr, conn.remote_addr);
        EXPECT_TRUE(log.has_in_order(c.lines));
        EXPECT_EQ(c.fd == 0, !log.has("Could not make connection"));
    }
    EXPECT_EQ(before, open_descriptors());
    close(listener);
}

TEST(Socket, ShortSendAnswersTheFirstCount)
{
    Link link(false);
    std::string data(40000, 'x'), got;
    std::thread reader([&] {
        usleep(100000);
        got = fd_read(link.peer.fd, data.size());
    });
    size_t accepted = 0;
    LogLines log;
    int result = tcp_send_counted(&link.conn, data.data(), data.size(), &accepted);
    EXPECT_GT(result, 0);
    EXPECT_LT((size_t)result, data.size());
    EXPECT_GE(accepted, (size_t)result);
    std::string cut = "TCP outgoing data has been cut, len: 40000, sent: " + std::to_string(result) + " bytes!";
    std::string rest = "Trying to send remained part, remain_len: " + std::to_string(40000 - result) + "!";
    EXPECT_TRUE(log.has_in_order({"len: 40000", cut, "Waiting: 10 ms ...", rest, "tcp_send to 127.0.0.1:"}));
    shutdown(link.conn.socket_fd, SHUT_WR);
    reader.join();
    EXPECT_EQ(accepted, got.size());

    Link full(false);
    fill_buffers(full.conn.socket_fd); // nothing can be taken: tried once more
    int64_t start = wait_now_ms();
    EXPECT_EQ(-1, tcp_send_counted(&full.conn, "abc", 3, &accepted));
    EXPECT_GE(wait_now_ms() - start, 100);
    EXPECT_EQ(0u, accepted);
    EXPECT_TRUE(log.has_in_order({"TCP send failed, err: Resource temporarily unavailabl!", "Waiting: 100 ms ...",
                                  "Trying to send again, len: 3!",
                                  "TCP re-send failed, err: Resource temporarily unavailabl!"}));
}

// Four writers of 20 KB frames to a 2,048-byte peer: every frame arrives once, whole, unmixed.
TEST(Socket, FramesOfSeveralWritersStayWhole)
{
    constexpr int writers = 4, rounds = 5;
    Link link(true);
    auto frame_of = [](char writer, int round) {
        std::string text(20000, writer);
        text[0] = (char)('0' + round);
        return frame(text);
    };
    g_log_level = 3;
    std::vector<std::thread> threads;
    for (char writer = 'a'; writer < 'a' + writers; writer++)
        threads.emplace_back([&, writer] {
            for (int i = 0; i < rounds; i++) {
                EXPECT_GT(link.send(frame_of(writer, i)), 0);
            }
        });
    std::map<char, int> seen;
    for (int i = 0; i < writers * rounds; i++) {
        std::string got = fd_read(link.peer.fd, 4 + 20000);
        ASSERT_EQ(4u + 20000, got.size());
        ASSERT_TRUE(got == frame_of(got.back(), seen[got.back()]++)) << i;
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ((size_t)writers, seen.size());
    EXPECT_FALSE(readable_within(link.peer.fd, 0));
}

// A peer that rests for longer than both attempts and then reads on loses nothing, even when the sender's work was
// called off meanwhile; one that reads no more loses the connection, unless nothing of the unit was sent.
TEST(Socket, PeerThatStopsReading)
{
    static std::atomic<uint32_t> counter;
    enum End { WHOLE, DROPPED, NOT_SENT };
    const struct {
        const char *name;
        SendKind kind;
        End end;
        int max_ms;
        bool is_tls = false, full_before = false, stop = false, call_off = false;
    } rows[] = {
        {"reads on", SEND_MESSAGE, WHOLE, 4000},
        {"reads on, called off", SEND_MESSAGE, WHOLE, 4000, false, false, false, true},
        {"reads on, TLS", SEND_MESSAGE, WHOLE, 4000, true},
        {"inside a frame", SEND_MESSAGE, DROPPED, 4000},
        {"inside a frame, TLS", SEND_MESSAGE, DROPPED, 5000, true},
        {"before a frame", SEND_MESSAGE, NOT_SENT, 1000, false, true},
        {"before stream bytes", SEND_STREAM, DROPPED, 10000, false, true},
        {"inside a frame, stop", SEND_MESSAGE, DROPPED, 500, false, false, true},
        {"stream, called off", SEND_STREAM, DROPPED, 500, false, false, false, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Link link(true, row.is_tls);
        const std::string data = std::string(299999, 'x') + "z";
        if (row.full_before)
            fill_buffers(link.conn.socket_fd);
        std::thread reader([&] {
            usleep(row.end == WHOLE ? 700000 : 0);
            EXPECT_TRUE(row.end != WHOLE || link.read(data.size() + 3) == data + "end");
        });
        if (row.stop)
            stop_request(15);
        if (row.call_off)
            wait_call_off_set({&counter, counter + 1});
        LogLines log;
        const int64_t start = wait_now_ms();
        const int result = link.send(data, row.kind);
        EXPECT_EQ(row.end == WHOLE, result > 0);
        EXPECT_LT(wait_now_ms() - start, row.max_ms);
        wait_call_off_set({nullptr, 0});
        stop_reset_for_test();
        EXPECT_TRUE(!row.is_tls ||
                    log.has_in_order({"SSL send failed, err: (null)!", "Waiting: 100 ms ...",
                                      "Trying to send again, len: 300000!", "SSL re-send failed, err: (null)!"}));
        EXPECT_EQ(row.end == DROPPED, link.conn.ref->broken == 1);
        EXPECT_TRUE(row.end != WHOLE || link.send("end") > 0);
        if (row.end == DROPPED) {
            const std::string before = log.text();
            EXPECT_EQ(-1, tcp_send(&link.conn, "a", 1));
            EXPECT_EQ(before, log.text());
            EXPECT_EQ(0, tcp_check_fd(link.conn.socket_fd));
        }
        reader.join();
    }
}

// 2 s without room to send are an end of the connection, but not when the wait was cut.
TEST(Socket, LivenessOfAFullBuffer)
{
    Link link(false);
    fill_buffers(link.conn.socket_fd);
    LogLines log;
    EXPECT_EQ(0, tcp_check_fd(link.conn.socket_fd));
    EXPECT_TRUE(log.has("selecting timeout."));
    stop_request(15);
    EXPECT_EQ(1, tcp_check_fd(link.conn.socket_fd));
    stop_reset_for_test();
}
