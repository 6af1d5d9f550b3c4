#include "transport/http_client.h"
#include "transport/http_client_internal.h"

#include <future>

#include "peers.h"
#include "remote/remote_telnet.h"

static const std::string k_ok = "HTTP/1.1 200 OK\r\n\r\n";

TEST(http_client, answers_are_parsed)
{
    for (const Texts &row : examples("http-answers")) {
        SCOPED_TRACE(row[0]);
        LogLines log;
        char *json = nullptr;
        EXPECT_EQ(std::stoi(row[1]), http_parse_response(row[0].c_str(), &json));
        EXPECT_STREQ(row[2].empty() ? nullptr : row[2].c_str(), json);
        EXPECT_TRUE(log.has(row[3]));
        free(json);
    }
    char *json = nullptr;
    EXPECT_EQ(-1, http_parse_response(nullptr, &json));
}

// A useless connection is replaced, and so is one to another NM.
TEST(http_client, posts_share_one_connection)
{
    LogLines log;
    char rsp[512] = {};
    NmPeer nm;
    nm.answer_set("1", {k_ok + "{\"n\":1}"});
    nm.answer_set("2", {k_ok});
    nm.answer_set("3", {"HTTP/1.1 404 ?\r\n\r\n"});
    EXPECT_EQ(7, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
    EXPECT_STREQ("{\"n\":1}", rsp);
    EXPECT_EQ(0, http_post_nm("/2", "{}", rsp, sizeof(rsp)));
    EXPECT_STREQ("", rsp);
    EXPECT_EQ(-1, http_post_nm("/3", "{}", rsp, sizeof(rsp)));
    nm_set(nm.port, "HTTP"); // another method, so another NM
    EXPECT_EQ(14, http_post_nm("/4", "{}", rsp, sizeof(rsp)));
    {
        NmPeer other; // a redirection
        EXPECT_EQ(14, http_post_nm("/5", "{}", rsp, sizeof(rsp)));
    }
    EXPECT_EQ((Texts{"/1", "/2", "/3", "/4"}), nm.now(&NmPeer::paths));
    EXPECT_EQ(3, log.count("Connection type: HTTP(2) has been added"));
    EXPECT_EQ(0, http_tcpclient_create("", "80").socket_fd);
    EXPECT_TRUE(log.has("[ERR] gethostbyname() failed: \n[ERR] http_tcpclient_create failed!\n"));
    EXPECT_TRUE(log.has("[DBG] Post HTTP nm message over IP: 0.0.0.0\nPOST /1 HTTP/1.1\r\n"));
}

// NM answered a heartbeat too late, with more than its buffer takes, or in two pieces: the rest once became the next
// heartbeat's answer, which then failed, and so did all that followed.
TEST(http_client, leftovers_never_become_the_next_answer)
{
    const struct {
        const char *name;
        std::string answer;   // to the first post
        std::string leftover; // sent when the first post is over
        int first;
    } rows[] = {
        {"late", "", k_ok + "{\"late\":1}", -1},
        {"531 bytes into 512", k_ok + std::string(512, '{'), "", 0},
        {"second segment", k_ok, "{\"second\":1}", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        LogLines log;
        std::promise<void> over, sent;
        DeviceService peer([&](int fd) {
            peer_read_request(fd);
            fd_send(fd, row.answer);
            over.get_future().wait();
            fd_send(fd, row.leftover);
            sent.set_value();
            peer_read_request(fd);
            fd_send(fd, k_ok + "{\"right\":1}");
        });
        nm_set(port_of(peer));
        char rsp[512] = {};
        const int64_t begin_ms = wait_now_ms();
        EXPECT_EQ(row.first, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
        EXPECT_EQ(row.first < 0, log.has("[WRN] select timeout!"));
        EXPECT_LT(wait_now_ms() - begin_ms, 4000); // the kept connection's patience is 2 s
        EXPECT_TRUE(conn_is_connected(HTTP));
        over.set_value();
        sent.get_future().wait();
        EXPECT_EQ(11, http_post_nm("/2", "{}", rsp, sizeof(rsp)));
        EXPECT_STREQ("{\"right\":1}", rsp);
    }
}

// The same over TLS, where the rest of the old answer comes with the rest of its record.
TEST(http_client, half_a_record_never_becomes_the_next_answer)
{
    for (size_t cut : {1, 4, 5, 6, 40}) { // bytes of the record that have come by the second post; 5: its header
        SCOPED_TRACE(cut);
        std::promise<void> over;
        std::atomic<bool> is_first{true};
        DeviceService peer([&](int fd) {
            TlsPeer nm;
            nm.fd = dup(fd);
            ASSERT_TRUE(nm.handshake());
            EXPECT_NE("", nm.read());
            if (!is_first.exchange(false))
                return nm.write(k_ok + "{\"right\":1}");
            nm.write(k_ok + "{\"n\":1}");
            over.get_future().wait();
            fd_send(fd, nm.record(k_ok + "{\"old\":1}").substr(0, cut));
            ASSERT_EQ("", fd_read(fd, 1)) << "used for a second request";
        });
        nm_set(port_of(peer), "https");
        LogLines log;
        char rsp[512] = {};
        EXPECT_EQ(7, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
        SocketConn kept;
        ASSERT_EQ(1, conn_hold(HTTP, &kept));
        over.set_value();
        EXPECT_TRUE(readable_within(kept.socket_fd, 5000));
        conn_drop(&kept);
        EXPECT_EQ(11, http_post_nm("/2", "{}", rsp, sizeof(rsp)));
        EXPECT_STREQ("{\"right\":1}", rsp);
        conn_remove(HTTP, 0);
    }
}

// What a connection is opened with; port is NM's, over https the one behind the command's.
static void post_to(const std::string &)
{
    char rsp[512] = {};
    (void)http_post_nm("/1", "{}", rsp, sizeof(rsp));
}

static void tunnel_to(const std::string &port)
{
    int number = std::stoi(port) - plugin_info_nm_is_https();
    std::string text = "{\"param\":{\"action\":\"start\",\"host\":\"127.0.0.1\",\"port\":" + std::to_string(number) +
                       ",\"token\":\"t\",\"key\":7,\"sessionid\":\"s\"}}";
    (void)remote_telnet_req_handle(0, nullptr, text.c_str(), (uint32_t)text.size());
}

// A queue of one that is taken: the next connection hangs for a second, until the first has been accepted.
struct SlowListener {
    std::string port;
    int fd = bound_socket(SOCK_STREAM, &port);
    SocketConn filler;
    SlowListener()
    {
        EXPECT_EQ(0, listen(fd, 0));
        filler = connect_to(port);
    }
    int accept_next()
    {
        socket_close_private(&filler);
        close(accept(fd, nullptr, nullptr));
        return readable_within(fd, 5000) ? accept(fd, nullptr, nullptr) : -1;
    }
};

// The method changes while the connection is being made: what is said on it belongs to the port, which is the old one.
TEST(http_client, encryption_is_decided_with_the_port)
{
    const struct {
        const char *name;
        void (*open)(const std::string &port);
        const char *plain; // the first bytes when nothing is encrypted
    } rows[] = {
        {"post", post_to, "POST "},
        {"tunnel", tunnel_to, "{\"ver\""},
    };
    start_process_once();
    for (const auto &row : rows) {
        for (bool was_https : {true, false}) {
            SCOPED_TRACE(std::string(row.name) + (was_https ? " https to http" : " http to https"));
            SlowListener nm;
            nm_set(nm.port, was_https ? "https" : "http");
            LogLines log;
            std::thread opener([&] { row.open(nm.port); });
            usleep(500 * 1000); // it is connecting, and asks again after a second
            nm_set(nm.port, was_https ? "http" : "https");
            int fd = nm.accept_next();
            std::string said = fd_read(fd, 5), hello = "\x16\x03\x01";
            EXPECT_EQ(was_https ? hello : std::string(row.plain).substr(0, 5), said.substr(0, was_https ? 3 : 5));
            close(fd);
            opener.join();
            close(nm.fd);
            conn_remove_all();
        }
    }
}

// The kept connection never looks a name up: whoever posts on it holds the NM post lock.
TEST(http_client, kept_connection_wants_an_address)
{
    NmPeer nm;
    info_edit([](PluginInfo *next) { (void)text_set(next->nm_ip, "localhost"); });
    LogLines log;
    char rsp[512] = {};
    EXPECT_EQ(-1, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
    EXPECT_EQ("[ERR] gethostbyname() failed: localhost\n[ERR] http_tcpclient_create failed!\n", log.take());
    nm_set(nm.port);
    info_edit([](PluginInfo *next) { (void)text_set(next->local_ip, "localhost"); });
    EXPECT_EQ(-1, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
    EXPECT_FALSE(log.has("TCP connecting"));
}
