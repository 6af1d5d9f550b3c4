#include "transport/http_client.h"
#include "transport/http_client_internal.h"

#include <future>

#include "peers.h"
#include "remote/remote_telnet.h"

static const std::string k_ok = "HTTP/1.1 200 OK\r\n\r\n";

TEST(http_client, answers_are_parsed)
{
    static const struct {
        const char *text;
        int result;
        const char *json; // null: none
        const char *line;
    } rows[] = {
        {nullptr, -1, nullptr, "[ERR] Invalid parameter!"},
        {"", -1, nullptr, "[WRN] HTTP/1.1 not found!"},
        {"HTTP/1.0 200 OK\r\n\r\n{}", -1, nullptr, "[WRN] HTTP/1.1 not found!"},
        {"HTTP/1.1 201 Created\r\n\r\n{}", -1, nullptr, "[WRN] Http result: 201"},
        {"HTTP/1.1 99999999999 ?\r\n\r\n{}", -1, nullptr, "[WRN] Http result: 2147483647"},
        {"HTTP/1.1\r\n\r\n{}", -1, nullptr, "[WRN] Http result: 0"},
        {"junk HTTP/1.1 200\r\n\r\n{}", 2, "{}", "[DBG] http json_len: 2"},
        {"HTTP/1.1 200 OK\r\nA: b", 0, nullptr, "[DBG] HTTP message body is NULL."},
        {"HTTP/1.1 200 OK\r\n\r\n", 0, nullptr, "[DBG] p_json_start is NULL!"},
        {"HTTP/1.1 200 OK\r\n\r\nok}", 0, nullptr, "[DBG] p_json_start is NULL!"},
        {"HTTP/1.1 200 OK\r\n\r\n{\"a\":1", 0, nullptr, "[WRN] p_json_end is NULL!"},
        {"HTTP/1.1 200 OK\r\n\r\n}{", 0, nullptr, "[WRN] Invalid json_len!"},
        {"HTTP/1.1 200 OK\r\n\r\nab{\"a\":{}}}cd", 10, "{\"a\":{}}}", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text ? row.text : "null");
        LogLines log;
        char *json = nullptr;
        int expected = row.json ? (int)strlen(row.json) : row.result;
        EXPECT_EQ(expected, http_parse_response(row.text, &json));
        EXPECT_STREQ(row.json, json);
        EXPECT_TRUE(log.has(row.line));
        free(json);
    }
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
    nm_set(nm.peer.port, "HTTP"); // another method, so another NM
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
        Peer peer([&](int listener) {
            int fd = accept(listener, nullptr, nullptr);
            peer_read_request(fd);
            peer_send(fd, row.answer);
            over.get_future().wait();
            peer_send(fd, row.leftover);
            sent.set_value();
            peer_read_request(fd);
            peer_send(fd, k_ok + "{\"right\":1}");
            close(fd);
        });
        nm_set(peer.port);
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
        Peer peer([&](int listener) {
            TlsPeer first = tls_peer_new();
            ASSERT_TRUE(tls_peer_accept(&first, listener));
            char request[4096];
            EXPECT_GT(SSL_read(first.ssl, request, sizeof(request)), 0);
            std::string answer = k_ok + "{\"n\":1}";
            EXPECT_EQ((int)answer.size(), SSL_write(first.ssl, answer.data(), (int)answer.size()));
            over.get_future().wait();
            std::string record = tls_peer_record(&first, k_ok + "{\"old\":1}");
            peer_send(first.fd, record.substr(0, cut));
            char byte;
            EXPECT_TRUE(readable_within(first.fd, 5000));
            if (recv(first.fd, &byte, 1, MSG_PEEK) > 0) { // a second request instead of an end
                send(first.fd, record.data() + cut, record.size() - cut, MSG_NOSIGNAL);
                ADD_FAILURE() << "reused";
            } else {
                TlsPeer second = tls_peer_new();
                EXPECT_TRUE(tls_peer_accept(&second, listener));
                EXPECT_GT(SSL_read(second.ssl, request, sizeof(request)), 0);
                answer = k_ok + "{\"right\":1}";
                EXPECT_EQ((int)answer.size(), SSL_write(second.ssl, answer.data(), (int)answer.size()));
                tls_peer_free(&second);
            }
            tls_peer_free(&first);
        });
        nm_set(peer.port, "https");
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

// Descriptors of other kinds come and go while a name is looked up.
static int tcp_sockets()
{
    int count = 0;
    for (int fd = 0; fd < 64; fd++) {
        int domain = 0, type = 0;
        socklen_t len = sizeof(int);
        count += getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_INET &&
                 getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_STREAM;
    }
    return count;
}

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
            const int before = tcp_sockets();
            std::thread opener([&] { row.open(nm.port); });
            while (tcp_sockets() == before) // until there is one that connects
                usleep(1000);
            nm_set(nm.port, was_https ? "http" : "https");
            int fd = nm.accept_next();
            std::string said = read_upto(fd, 5), hello = "\x16\x03\x01";
            EXPECT_EQ(was_https ? hello : std::string(row.plain).substr(0, 5), said.substr(0, was_https ? 3 : 5));
            close(fd);
            opener.join();
            close(nm.fd);
            conn_remove_all();
        }
    }
}

// Connecting again leads to the same port, so it is encrypted as before, whatever the method in force says by now.
TEST(http_client, reconnects_as_before)
{
    start_process_once();
    for (bool was_https : {true, false}) {
        SCOPED_TRACE(was_https);
        Peer peer([&](int listener) {
            for (int i = 0; i < 2; i++) {
                TlsPeer tls = tls_peer_new();
                EXPECT_EQ(was_https, tls_peer_accept(&tls, listener));
                tls_peer_free(&tls);
            }
        });
        nm_set(peer.port, was_https ? "https" : "http");
        conn_add(REMOTE_TELNET_SERVER, connect_to(peer.port), 0);
        nm_set(peer.port, was_https ? "http" : "https");
        LogLines log;
        EXPECT_EQ(1, conn_reconnect(REMOTE_TELNET_SERVER));
        EXPECT_EQ(was_https, log.has("SSL init success!"));
        EXPECT_TRUE(was_https || !log.has("SSL_connect")); // not even tried
        conn_remove(REMOTE_TELNET_SERVER, 0);
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
    nm_set(nm.peer.port);
    info_edit([](PluginInfo *next) { (void)text_set(next->local_ip, "localhost"); });
    EXPECT_EQ(-1, http_post_nm("/1", "{}", rsp, sizeof(rsp)));
    EXPECT_FALSE(log.has("TCP connecting"));
}
