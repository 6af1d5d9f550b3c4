#include "peers.h"

// Another thread closes while this one waits on the connection: the wait ends at once, the peer sees its end at once,
// and the number is given out again only after the last copy has gone.
TEST(ConnRegistry, CloseWakesAWaiterAndFreesWithTheLastCopy)
{
    start_process_once();
    for (ConnectionType type : {HTTP, NM_UDP_DETECTION}) {
        SCOPED_TRACE(conn_type_name(type));
        int peer = -1;
        SocketConn conn = udp_connect("127.0.0.1", "9", nullptr, nullptr), copy;
        if (type == HTTP) {
            socket_close_private(&conn);
            peer = connect_pair(&conn);
        }
        conn_add(type, conn, 0);
        ASSERT_EQ(1, conn_hold(type, &copy));
        std::thread closer([type] {
            usleep(50000);
            conn_remove(type, 0);
        });
        int64_t start = wait_now_ms();
        EXPECT_EQ(1, conn_readable(&copy, 10000));
        EXPECT_LT(wait_now_ms() - start, 5000);
        closer.join();
        EXPECT_TRUE(peer < 0 || fd_read(peer, 1) == "");
        EXPECT_EQ(0, conn_is_current(type, &copy));
        EXPECT_GE(fcntl(copy.socket_fd, F_GETFD), 0);
        conn_drop(&copy);
        conn_drop(&copy); // harmless
        EXPECT_EQ(-1, fcntl(conn.socket_fd, F_GETFD));
        EXPECT_EQ(0, conn_hold(type, &copy));
        EXPECT_EQ(-1, copy.socket_fd);
        EXPECT_STREQ("127.0.0.1", copy.remote_ip);
        conn_drop(&copy);
        close(peer);
    }
}

TEST(ConnRegistry, OldCopiesDoNotTouchTheSuccessor)
{
    SocketConn first, second, old_copy, copy;
    int peers[] = {connect_pair(&first), connect_pair(&second)};
    conn_add(HTTP, first, 0);
    ASSERT_EQ(1, conn_hold(HTTP, &old_copy));
    EXPECT_EQ(1, conn_is_current(HTTP, &old_copy));
    conn_add(HTTP, second, 0);
    EXPECT_EQ(0, conn_is_current(HTTP, &old_copy));
    conn_remove_if_current(HTTP, &old_copy, 0);
    EXPECT_EQ(1, conn_check(HTTP));
    conn_drop(&old_copy);
    ASSERT_EQ(1, conn_hold(HTTP, &copy));
    conn_remove_if_current(HTTP, &copy, 0);
    EXPECT_EQ(0, conn_is_connected(HTTP));
    conn_drop(&copy);
    close(peers[0]);
    close(peers[1]);

    peers[0] = connect_pair(&first, 2048); // a successor that comes while the old one is tested
    fill_buffers(first.socket_fd);
    conn_add(HTTP, first, 0);
    std::thread adder([&] {
        peers[1] = connect_pair(&second);
        usleep(500000);
        conn_add(HTTP, second, 0);
    });
    EXPECT_EQ(0, conn_check(HTTP));
    adder.join();
    EXPECT_EQ(1, conn_is_connected(HTTP));
    conn_remove(HTTP, 0);
    close(peers[0]);
    close(peers[1]);
}

// Broken, but the test that would find it shut down is cut short: not usable, and no line calls state 1 "not connected:
// 1". A handshake that is cut short brings no connection, least of all a plain one.
TEST(ConnRegistry, TestAndHandshakeCutShort)
{
    static std::atomic<uint32_t> s_counter{0};
    start_process_once();
    SocketConn conn, second, copy;
    int peers[] = {connect_pair(&conn), connect_pair(&second)};
    conn_add(HTTP, conn, 0);
    ASSERT_EQ(1, conn_hold(HTTP, &copy));
    copy.ref->broken = 1;
    LogLines log;
    wait_call_off_set({&s_counter, s_counter + 1});
    EXPECT_EQ(0, tcp_check_conn(HTTP));
    EXPECT_EQ("", log.take());
    conn_drop(&copy);
    conn_remove(HTTP, 0);
    nm_set("1", "https");
    conn_add(HTTP, second, 0);
    wait_call_off_set({nullptr, 0});
    EXPECT_EQ(0, conn_is_connected(HTTP));
    EXPECT_FALSE(log.has("has been added"));
    close(peers[0]);
    close(peers[1]);
}

// Encrypted by type and method; the session precedes the addition, its end stands inside the removal. Connecting again
// leads to the same port, so it is encrypted as before, whatever the method in force says by now.
TEST(ConnRegistry, TlsByTypeAndMethod)
{
    start_process_once();
    const struct {
        ConnectionType type;
        const char *method;
        bool encrypted;
    } cases[] = {
        {HTTP, "HTTPS", true},
        {REMOTE_WEB_SERVER, "https", true},
        {REMOTE_TELNET_SERVER, "Https", true},
        {DEV_TCP, "https", false},
        {REMOTE_TELNET_DEVICE, "https", false},
        {HTTP, "http", false},
        {REMOTE_TELNET_SERVER, "http", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(conn_type_name(c.type)) + " " + c.method);
        const bool again = c.type == REMOTE_TELNET_SERVER;
        DeviceService peer([&](int fd) {
            TlsPeer tls;
            tls.fd = dup(fd);
            EXPECT_EQ(c.encrypted, tls.handshake());
        });
        nm_set("1", c.method);
        LogLines log;
        conn_add(c.type, connect_to(port_of(peer)), 1);
        nm_set("1", c.encrypted ? "http" : "https");
        EXPECT_TRUE(!again || conn_reconnect(c.type) == 1);
        conn_remove(c.type, 0);
        EXPECT_EQ(c.encrypted, log.has_in_order({"SSL init success!", "has been added, socket: ", ", SSL: 1",
                                                 "Shutdown and close socket: ", "SSL deinit success!", "removed,"}));
        EXPECT_EQ(c.encrypted * (1 + again), log.count("SSL init success!"));
        EXPECT_TRUE(c.encrypted || !log.has("SSL_connect")); // not even tried
    }
}
