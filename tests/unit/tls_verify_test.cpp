// Certificates against configurations: who is NM, and what the log says of everybody else.
#include "peers.h"

#include <iniparser.h>
#include <sys/stat.h>

#include "nm/init_cfg_internal.h"
#include "runtime/options.h"
#include "sim_cert.h"
#include "transport/http_client.h"
#include "transport/tls_verify_internal.h"

// Every certificate of the tests, named as in the rows.
struct Certificates : SimCertDir {
    Certificates()
    {
        const std::string names = "DNS:nm.test,IP:127.0.0.1";
        const long day_s = 24L * 3600;
        make("ca", {"the CA", "", true});
        make("other-ca", {"another CA", "", true});
        make("middle", {"intermediate", "", true}, "ca");
        make("right", {"NM", names}, "ca");
        make("other-name", {"stranger", "DNS:other.test,IP:127.0.0.2"}, "ca");
        make("name-only", {"NM", "DNS:nm.test"}, "ca");
        make("expired", {"NM", names, false, -2 * day_s, -day_s}, "ca");
        make("too-early", {"NM", names, false, day_s, 2 * day_s}, "ca");
        make("self-signed", {"NM", names});
        make("of-other-ca", {"NM", names}, "other-ca");
        make("of-middle", {"NM", names}, "middle");
        make("common-name", {"nm.test", ""}, "ca");
        make("other-device", {"NM", names, false, -day_s, day_s, "clientAuth"}, "ca");
        make("device", {"SN00000001", ""}, "ca");
        write("with-middle", sim_cert_pem(made["of-middle"]) + sim_cert_pem(made["middle"]));
        write("with-middle.key", sim_key_pem(made["of-middle"]));
        write("empty", "");
    }
    // Puts these lines of [nm_tls] in force; "<name>" becomes the path of its file, "{name}" its pin.
    void configure(std::string lines)
    {
        for (size_t at; (at = lines.find_first_of("<{")) != std::string::npos;) {
            const size_t end = lines.find_first_of(">}", at);
            const std::string name = lines.substr(at + 1, end - at - 1);
            lines.replace(at, end - at + 1, lines[at] == '<' ? file(name) : sim_cert_pin(made.at(name)));
        }
        write("config.ini", "[nm_tls]\n" + lines);
        dictionary *dict = iniparser_load(file("config.ini").c_str());
        options_read(dict);
        iniparser_freedict(dict);
    }
};

static void tls_serve(const SimTlsFiles &files, bool is_old, int fd)
{
    SSL_CTX *ctx = sim_tls_server(files);
    if (is_old) {
        SSL_CTX_set_security_level(ctx, 0);
        SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
        SSL_CTX_set_max_proto_version(ctx, TLS1_VERSION);
    }
    SSL *ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    char byte;
    if (SSL_accept(ssl) == 1)
        (void)SSL_read(ssl, &byte, 1); // until the client ends it
    SSL_free(ssl);
    SSL_CTX_free(ctx);
}

static void serve(const Certificates &certs, const std::string &kind, const std::string &certificate, int fd)
{
    const struct linger at_once = {1, 0};
    if (kind.substr(0, 3) == "TLS")
        tls_serve(certs.server(certificate, kind == "TLS, asks" ? "ca" : ""), kind == "TLS 1.0", fd);
    if (kind == "plain text")
        fd_send(fd, "HTTP/1.1 400 Bad Request\r\n\r\n");
    const std::string hello("\x16\x03\x03\x40\0\x02\0\x3f\xfc\x03\x03", 11); // the beginning of one
    const useconds_t pause_us = kind == "trickles" ? 300000 : kind == "trickles fast" ? 30000 : 0;
    for (size_t at = 0; pause_us && at < hello.size() && send(fd, &hello[at], 1, MSG_NOSIGNAL) == 1; at++)
        usleep(pause_us);
    if (kind == "plain text" || kind == "stalls")
        (void)fd_read(fd, 65536);
    if (kind == "resets" && readable_within(fd, 5000))
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close(fd);
}

// A row of docs/examples/nm-tls.md. clock_s: the agent's, 0: now. Returns what was logged.
static std::string row_run(Certificates *certs, const Texts &row, int64_t clock_s = 0)
{
    const std::string &certificate = row[0], &host = row[2], &kind = row[3], &line = row[4];
    SCOPED_TRACE(certificate + ", " + row[1] + ", " + host + ", " + kind);
    SocketConn conn;
    int peer = connect_pair(&conn);
    certs->configure(row[1]);
    g_tls_clock_for_test = clock_s;
    std::thread server([&] { serve(*certs, kind, certificate, peer); });
    const int64_t begin_ms = wait_now_ms();
    LogLines log;
    conn.ssl = tls_init(conn.socket_fd, host.c_str());
    const int failure = conn.ssl ? 0 : errno;
    EXPECT_EQ(line.empty() ? 0 : row[1].empty() ? EPROTO : EACCES, failure); // EPROTO: plain text is what is left
    EXPECT_TRUE(log.has(line.empty() ? "SSL init success!" : line)) << log.text();
    EXPECT_EQ(line.empty() ? 0 : 1, log.count("[ERR]")) << log.text();
    EXPECT_LT(wait_now_ms() - begin_ms, 1800);
    socket_close_private(&conn);
    server.join();
    return log.text();
}

TEST(TlsVerify, CertificatesAgainstConfigurations)
{
    start_process_once();
    Certificates certs;
    for (const Texts &row : examples("nm-tls"))
        row_run(&certs, row);
    const int64_t in_1970_s = 86400; // a clock that was never set: no date counts, the name does
    row_run(&certs, {"too-early", "ca_file=<ca>", "nm.test", "TLS", ""}, in_1970_s);
    row_run(&certs, {"other-name", "ca_file=<ca>", "nm.test", "TLS", "hostname mismatch"}, in_1970_s);
    std::string log = row_run(&certs, {"", "", "", "trickles fast", "SSL_connect failed too much times!"});
    EXPECT_EQ(9, count_of(log, "SSL_connect failed! Try again..."));

    (void)chmod(certs.file("device.key").c_str(), 0640);
    log.clear();
    for (int i = 0; i < 2; i++)
        log += row_run(&certs, {"right", "client_cert=<device>\nclient_key=<device.key>", "", "TLS, asks", ""});
    EXPECT_EQ(1, count_of(log, "device.key' can be read by others than its owner!"));
}

// The ways to NM; each wants to send "/secret".
static void request_send(const std::string &port)
{
    char rsp[64] = "";
    (void)http_request("127.0.0.1", port.c_str(), "/secret", "GET", nullptr, 0, nullptr, rsp, sizeof(rsp));
}

static void kept_send(const std::string &)
{
    char rsp[64] = "";
    (void)http_post_nm("/secret", "{}", rsp, sizeof(rsp));
}

static void tunnel_send(const std::string &port)
{
    SocketConn held;
    (void)conn_add_as(REMOTE_WEB_SERVER, connect_to(port), conn_security_wanted(REMOTE_WEB_SERVER), "nm.test", 0);
    if (conn_hold(REMOTE_WEB_SERVER, &held) && tcp_send(&held, "/secret", 7) > 0)
        (void)conn_readable(&held, 5000); // the peer has heard it
    conn_drop(&held);
}

// Whether the secret reaches a peer that answers the first byte, of a handshake or not, with plain text or a reset.
static bool leaks(void (*send_to)(const std::string &port), const std::string &method, bool resets)
{
    std::string bytes;
    {
        std::mutex mutex;
        DeviceService peer([&](int fd) {
            const struct linger at_once = {1, 0};
            std::string said = fd_read(fd, 1);
            if (resets) {
                setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
            } else {
                fd_send(fd, http_ok("{}"));
                said += fd_read(fd, 65536);
            }
            std::lock_guard<std::mutex> lock(mutex);
            bytes += said;
        });
        nm_set(port_of(peer), method.c_str());
        send_to(port_of(peer));
        conn_remove_all();
        EXPECT_TRUE(peer.wait_serving(0));
    }
    return count_of(bytes, "/secret") > 0;
}

// Whichever way leads to NM: with keys nothing is sent in plain text, without them as ever.
TEST(TlsVerify, NothingInPlainText)
{
    start_process_once();
    Certificates certs;
    const struct {
        const char *name;
        void (*send_to)(const std::string &port);
        bool falls_back; // to plain text, over https without keys
    } ways[] = {{"request", request_send, false}, {"kept", kept_send, true}, {"tunnel end", tunnel_send, true}};
    for (const auto &way : ways) {
        for (const std::string method : {"http", "https"}) {
            SCOPED_TRACE(std::string(way.name) + " over " + method);
            certs.configure("");
            EXPECT_EQ(method == "http" || way.falls_back, leaks(way.send_to, method, false));
            for (const char *config : {"ca_file=<ca>", "pin_sha256={ca}", "check_time=no"}) {
                certs.configure(config);
                for (bool resets : {false, true}) {
                    LogLines log;
                    EXPECT_FALSE(leaks(way.send_to, method, resets));
                    EXPECT_EQ(1, log.count("refused: ") + log.count("Plain text to ")) << log.text();
                }
            }
        }
    }
    LogLines log;
    EXPECT_EQ(-1, init_cfg_parse_text("{\"method\":\"http\",\"host\":\"127.0.0.1\",\"port\":1}"));
    EXPECT_TRUE(log.has("[ERR] NM's method is 'http', but [nm_tls] of config.ini asks for https!\n"));
}

// A tunnel end that is connected again is still expected to be the one that NM named.
TEST(TlsVerify, ReconnectKeepsTheName)
{
    start_process_once();
    Certificates certs;
    certs.configure("ca_file=<ca>");
    DeviceService peer([&](int fd) { tls_serve(certs.server("name-only"), false, fd); });
    EXPECT_EQ(1, conn_add_as(REMOTE_TELNET_SERVER, connect_to(port_of(peer)), CONN_TLS, "nm.test", 0));
    EXPECT_EQ(1, conn_reconnect(REMOTE_TELNET_SERVER));
    EXPECT_EQ(0, conn_add_as(REMOTE_TELNET_SERVER, connect_to(port_of(peer)), CONN_TLS, nullptr, 0));
    conn_remove_all();
}
