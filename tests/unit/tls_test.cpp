#include "peers.h"

#include <openssl/err.h>

TEST(Tls, BytesGoBothWays)
{
    for (const char *signatures : {(const char *)nullptr, "ECDSA+SHA1"}) { // old servers are fine: nothing is verified
        Link link(false, true, signatures);
        char buf[64] = "";
        LogLines log;
        EXPECT_EQ(4, tcp_send(&link.conn, "ping", 4));
        EXPECT_TRUE(log.has("SSL send, 4 bytes."));
        EXPECT_EQ("ping", link.peer.read());
        link.peer.write("pong");
        EXPECT_EQ(1, conn_readable(&link.conn, 5000));
        EXPECT_EQ(4, conn_recv(&link.conn, buf, sizeof(buf)));
        EXPECT_STREQ("pong", buf);
        ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH); // what another session left behind is not this one's error
        errno = 0;
        EXPECT_EQ(-1, conn_recv(&link.conn, buf, sizeof(buf)));
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(0, conn_readable(&link.conn, 0));
        socket_close_private(&link.conn);
        EXPECT_TRUE(log.has("SSL deinit success!"));
        EXPECT_EQ("", fd_read(link.peer.fd, 1)); // closed without an alert
    }
}

// "Readable" is plaintext: half a record is waited for, what is left of a large one counts, so does the end.
TEST(Tls, ReadableMeansPlaintext)
{
    Link link(false, true);
    const std::string text(16000, 'r'), record = link.peer.record(text);
    std::thread server([&] {
        fd_send(link.peer.fd, record.substr(0, record.size() / 2));
        usleep(300000);
        fd_send(link.peer.fd, record.substr(record.size() / 2));
    });
    EXPECT_TRUE(readable_within(link.conn.socket_fd, 5000));
    int64_t start = wait_now_ms();
    EXPECT_EQ(0, conn_readable(&link.conn, 100));
    EXPECT_GE(wait_now_ms() - start, 100);
    EXPECT_EQ(1, conn_readable(&link.conn, 5000));
    server.join();

    std::string got;
    char piece[100];
    for (int count; got.size() < text.size(); got.append(piece, (size_t)count)) {
        ASSERT_EQ(1, conn_readable(&link.conn, 0));
        ASSERT_GT(count = conn_recv(&link.conn, piece, sizeof(piece)), 0);
    }
    EXPECT_EQ(text, got);
    EXPECT_EQ(0, conn_readable(&link.conn, 0));

    shutdown(link.peer.fd, SHUT_WR); // an end without a farewell
    EXPECT_EQ(1, conn_readable(&link.conn, 5000));
    EXPECT_EQ(0, conn_recv(&link.conn, piece, sizeof(piece)));
}

// One session: a thread writes frames while another, which never waits, reads what comes back.
TEST(Tls, ReaderAndWriterShareASession)
{
    Link link(true, true);
    g_log_level = 2;
    std::thread echo([&] {
        for (std::string bytes; !(bytes = link.peer.read()).empty();)
            (void)SSL_write(link.peer.ssl, bytes.data(), (int)bytes.size());
    });
    const std::string sent = noise(13000, 1);
    std::string got;
    std::atomic<size_t> received{0};
    std::thread writer([&] {
        for (size_t at = 0; at < sent.size(); at += 10) {
            while (at > received + 20) // the smallest send buffer takes six frames
                usleep(10);
            EXPECT_EQ(10, link.send(sent.substr(at, 10)));
        }
    });
    char buf[700];
    for (int64_t end = wait_now_ms() + 60000; got.size() < sent.size() && wait_now_ms() < end;) {
        int count = conn_recv(&link.conn, buf, sizeof(buf));
        if (count == 0 || (count < 0 && errno != EAGAIN))
            break;
        got.append(buf, (size_t)std::max(count, 0));
        received = got.size();
    }
    EXPECT_TRUE(sent == got);
    received = sent.size();
    writer.join();
    conn_ref_shut(link.conn.ref);
    echo.join();
}
