#include "peers.h"

#include "runtime/wait.h"
#include "transport/conn_life.h"

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
        EXPECT_TRUE(peer < 0 || read_upto(peer, 1) == "");
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
}
