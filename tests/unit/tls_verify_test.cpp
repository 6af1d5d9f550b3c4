// Certificates against configurations: who is NM, and what the log says of everybody else.
#include "peers.h"

#include <fstream>
#include <iniparser.h>
#include <sys/stat.h>

#include "nm/init_cfg_internal.h"
#include "runtime/options.h"
#include "sim_cert.h"
#include "transport/conn_send.h"
#include "transport/http_client.h"
#include "transport/tls.h"
#include "transport/tls_verify_internal.h"

// A directory with every certificate of the tests, named as in the rows; removed at the end.
struct Certificates {
    std::string dir;
    std::map<std::string, SimCert> made;

    Certificates()
    {
        char path[] = "/tmp/tls_verify_XXXXXX";
        dir = mkdtemp(path);
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
        made["with-middle"] = made["of-middle"];
        (void)chmod(file("device.key").c_str(), 0600);
    }
    ~Certificates()
    {
        (void)!system(("rm -r " + dir).c_str());
    }
    void make(const std::string &name, const SimCertSpec &spec, const std::string &issuer = "")
    {
        made[name] = sim_cert_make(spec, issuer.empty() ? nullptr : &made[issuer]);
        write(name, sim_cert_pem(made[name]));
        write(name + ".key", sim_key_pem(made[name]));
    }
    void write(const std::string &name, const std::string &text)
    {
        std::ofstream(file(name)) << text;
    }
    std::string file(const std::string &name)
    {
        return dir + "/" + name;
    }
    // "<name>" becomes the path of its file, "{name}" its pin.
    std::string filled(std::string text)
    {
        for (size_t at; (at = text.find_first_of("<{")) != std::string::npos;) {
            const size_t end = text.find_first_of(">}", at);
            const std::string name = text.substr(at + 1, end - at - 1);
            text.replace(at, end - at + 1, text[at] == '<' ? file(name) : sim_cert_pin(made.at(name)));
        }
        return text;
    }
    // Puts these lines of [nm_tls] in force.
    void configure(const std::string &lines)
    {
        write("config.ini", "[nm_tls]\n" + filled(lines));
        dictionary *dict = iniparser_load(file("config.ini").c_str());
        options_read(dict);
        iniparser_freedict(dict);
    }
};

static bool text_holds(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

enum ServerKind { TLS, TLS_ASKS, TLS_1_0, PLAIN_TEXT, RESETS, STALLS, TRICKLES };

static void tls_serve(Certificates *certs, ServerKind kind, const char *certificate, int fd)
{
    SSL_CTX *ctx = sim_tls_server({certs->file(certificate), certs->file(std::string(certificate) + ".key"),
                                   kind == TLS_ASKS ? certs->file("ca") : ""});
    if (kind == TLS_1_0) {
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

static void serve(Certificates *certs, ServerKind kind, const char *certificate, int fd)
{
    const struct linger at_once = {1, 0};
    switch (kind) {
    case TLS:
    case TLS_ASKS:
    case TLS_1_0:
        tls_serve(certs, kind, certificate, fd);
        break;
    case PLAIN_TEXT:
        peer_send(fd, "HTTP/1.1 400 Bad Request\r\n\r\n");
        (void)read_upto(fd, 4096);
        break;
    case RESETS:
        (void)read_upto(fd, 1);
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        break;
    case STALLS:
        readable_within(fd, 5000);
        (void)read_upto(fd, 4096);
        break;
    case TRICKLES:
        for (char byte : std::string("\x16\x03\x03\x40\0\x02\0\x3f\xfc\x03\x03", 11)) {
            usleep(300000);
            if (send(fd, &byte, 1, MSG_NOSIGNAL) < 0)
                break;
        }
    }
    close(fd);
}

struct VerifyRow {
    const char *name;
    ServerKind kind;
    const char *certificate; // of the server
    const char *config;
    const char *host; // that was dialled
    const char *line; // null: accepted
    int64_t clock_s = 0;
};

#define SUBJECT_NM ", peer's certificate: /CN=NM\n"
#define NO_SUBJECT ", peer's certificate: none\n"
static const VerifyRow k_rows[] = {
    {"right, by name", TLS, "right", "ca_file=<ca>", "nm.test", nullptr},
    {"right, by address", TLS, "right", "ca_file=<ca>", "127.0.0.1", nullptr},
    {"server_name instead of the host", TLS, "right", "ca_file=<ca>\nserver_name=nm.test", "127.0.0.9", nullptr},
    {"an address as server_name", TLS, "right", "ca_file=<ca>\nserver_name=127.0.0.1", "nm.example", nullptr},
    {"intermediate sent", TLS, "with-middle", "ca_file=<ca>", "nm.test", nullptr},
    {"wrong name", TLS, "other-name", "ca_file=<ca>", "nm.test",
     "TLS with nm.test refused: hostname mismatch, peer's certificate: /CN=stranger\n"},
    {"wrong address", TLS, "other-name", "ca_file=<ca>", "127.0.0.1",
     "TLS with 127.0.0.1 refused: IP address mismatch, peer's certificate: /CN=stranger\n"},
    {"an address, but only the name is certified", TLS, "name-only", "ca_file=<ca>", "127.0.0.1",
     "IP address mismatch" SUBJECT_NM},
    {"its name is in the subject only", TLS, "common-name", "ca_file=<ca>", "nm.test", nullptr},
    {"a device in NM's place", TLS, "other-device", "ca_file=<ca>", "nm.test",
     "unsuitable certificate purpose" SUBJECT_NM},
    {"server_name is not the one", TLS, "right", "ca_file=<ca>\nserver_name=other.test", "nm.test",
     "hostname mismatch" SUBJECT_NM},
    {"nothing to expect", TLS, "right", "ca_file=<ca>", "", "no server name to expect" NO_SUBJECT},
    {"expired", TLS, "expired", "ca_file=<ca>", "nm.test", "certificate has expired" SUBJECT_NM},
    {"not yet valid", TLS, "too-early", "ca_file=<ca>", "nm.test", "certificate is not yet valid" SUBJECT_NM},
    {"expired, check_time 0", TLS, "expired", "ca_file=<ca>\ncheck_time=0", "nm.test", nullptr},
    {"not yet valid, in 1970", TLS, "too-early", "ca_file=<ca>", "nm.test", nullptr, 86400},
    {"not yet valid, in 1970, check_time 0", TLS, "too-early", "ca_file=<ca>\ncheck_time=0", "nm.test", nullptr, 86400},
    {"wrong name, in 1970", TLS, "other-name", "ca_file=<ca>", "nm.test", "hostname mismatch", 86400},
    {"self-signed", TLS, "self-signed", "ca_file=<ca>", "nm.test", "self-signed certificate" SUBJECT_NM},
    {"self-signed, itself trusted", TLS, "self-signed", "ca_file=<self-signed>", "nm.test", nullptr},
    {"another CA", TLS, "of-other-ca", "ca_file=<ca>", "nm.test", "unable to get local issuer certificate" SUBJECT_NM},
    {"intermediate missing", TLS, "of-middle", "ca_file=<ca>", "nm.test",
     "unable to get local issuer certificate" SUBJECT_NM},
    {"pin alone, neither name nor date nor CA", TLS, "expired", "pin_sha256={expired}", "", nullptr},
    {"second pin", TLS, "right", "pin_sha256={ca}  {right}", "nm.test", nullptr},
    {"no pin matches", TLS, "right", "pin_sha256={ca} {other-ca}", "nm.test", "is not in pin_sha256" SUBJECT_NM},
    {"part of a pin", TLS, "right", "pin_sha256={right}x", "nm.test", "is not in pin_sha256" SUBJECT_NM},
    {"right pin, wrong chain", TLS, "of-other-ca", "ca_file=<ca>\npin_sha256={of-other-ca}", "nm.test",
     "unable to get local issuer certificate" SUBJECT_NM},
    {"wrong pin, right chain", TLS, "right", "ca_file=<ca>\npin_sha256={ca}", "nm.test",
     "is not in pin_sha256" SUBJECT_NM},
    {"right pin, right chain", TLS, "right", "ca_file=<ca>\npin_sha256={right}", "nm.test", nullptr},
    {"client certificate wanted, there", TLS_ASKS, "right",
     "ca_file=<ca>\nclient_cert=<device>\nclient_key=<device.key>", "nm.test", nullptr},
    {"client certificate wanted, missing", TLS_ASKS, "right", "ca_file=<ca>", "nm.test",
     "alert handshake failure" SUBJECT_NM},
    {"client certificate, NM not verified", TLS_ASKS, "self-signed", "client_cert=<device>\nclient_key=<device.key>",
     "nm.test", nullptr},
    {"client key of another", TLS, "right", "ca_file=<ca>\nclient_cert=<device>\nclient_key=<ca.key>", "nm.test",
     "ca.key' cannot be used: key values mismatch!\n"},
    {"client key forgotten", TLS, "right", "ca_file=<ca>\nclient_cert=<device>", "nm.test", "need each other!\n"},
    {"client key gone", TLS, "right", "ca_file=<ca>\nclient_cert=<device>\nclient_key=<gone>", "nm.test",
     "gone' cannot be used: No such file or directory!\n"},
    {"ca_file gone", TLS, "right", "ca_file=<gone>", "nm.test", "gone' cannot be used: No such file or directory!\n"},
    {"ca_file empty", TLS, "right", "ca_file=<empty>", "nm.test", "empty' cannot be used: "},
    {"ca_file gone, pin right", TLS, "right", "ca_file=<gone>\npin_sha256={right}", "nm.test", "cannot be used: "},
    {"TLS 1.0 only", TLS_1_0, "right", "ca_file=<ca>", "nm.test", "wrong ssl version" NO_SUBJECT},
    {"plain text", PLAIN_TEXT, "", "ca_file=<ca>", "nm.test", "wrong version number" NO_SUBJECT},
    {"plain text, pin", PLAIN_TEXT, "", "pin_sha256={right}", "nm.test", "wrong version number" NO_SUBJECT},
    {"reset", RESETS, "", "ca_file=<ca>", "nm.test", "Connection reset by peer" NO_SUBJECT},
    {"stalled", STALLS, "", "ca_file=<ca>\nhandshake_timeout_s=1", "nm.test", "handshake_timeout_s is over" NO_SUBJECT},
    {"byte by byte", TRICKLES, "", "handshake_timeout_s=1", "nm.test", "handshake_timeout_s is over" NO_SUBJECT},
    {"server_name alone", TLS, "right", "server_name=nm.test", "nm.test", "server_name needs ca_file or pin_sha256"},
    {"a value out of bounds", TLS, "right", "ca_file=<ca>\ncheck_time=2", "nm.test", "cannot be used as it stands"},
    {"a key misspelt", TLS, "right", "ca_flie=<ca>", "nm.test", "cannot be used as it stands"},
    {"no key", TLS, "self-signed", "", "", nullptr},
};

// Returns what was logged.
static std::string row_run(Certificates *certs, const VerifyRow &row)
{
    SCOPED_TRACE(row.name);
    SocketConn conn;
    int peer = connect_pair(&conn);
    certs->configure(row.config);
    g_tls_clock_for_test = row.clock_s;
    std::thread server(serve, certs, row.kind, row.certificate, peer);
    const int64_t begin_ms = wait_now_ms();
    LogLines log;
    conn.ssl = tls_init(conn.socket_fd, row.host);
    const int failure = conn.ssl ? 0 : errno;
    EXPECT_EQ(row.line ? EACCES : 0, failure);
    EXPECT_TRUE(log.has(row.line ? row.line : "SSL init success!")) << log.text();
    EXPECT_EQ(row.line ? 1 : 0, log.count("[ERR]")) << log.text();
    EXPECT_LT(wait_now_ms() - begin_ms, 1800);
    socket_close_private(&conn);
    server.join();
    return log.text();
}

TEST(TlsVerify, CertificatesAgainstConfigurations)
{
    start_process_once();
    Certificates certs;
    for (const VerifyRow &row : k_rows)
        row_run(&certs, row);

    const std::string too_long = "ca_file=" + std::string(300, 'x');
    row_run(&certs, {"a value that is too long", TLS, "right", too_long.c_str(), "nm.test", "cannot be used as it"});
    (void)chmod(certs.file("device.key").c_str(), 0640);
    std::string log;
    for (int i = 0; i < 2; i++)
        log += row_run(&certs, {"a key that others can read", TLS_ASKS, "right",
                                "ca_file=<ca>\nclient_cert=<device>\nclient_key=<device.key>", "nm.test", nullptr});
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
    (void)conn_hold(REMOTE_WEB_SERVER, &held);
    (void)tcp_send(&held, "/secret", 7);
    conn_drop(&held);
}

// What reaches a peer that answers the first bytes, a handshake or not, with plain text.
static std::string captured(void (*send_to)(const std::string &port), const char *method)
{
    std::string bytes;
    Peer peer([&](int listener) {
        int fd = accept(listener, nullptr, nullptr);
        bytes = read_upto(fd, 1);
        peer_send(fd, http_ok("{}"));
        bytes += read_upto(fd, 65536);
        close(fd);
    });
    nm_set(peer.port, method);
    send_to(peer.port);
    conn_remove_all();
    peer.thread.join();
    peer.thread = std::thread([] {});
    return bytes;
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
    } ways[] = {
        {"request", request_send, false},
        {"kept connection", kept_send, true},
        {"tunnel end", tunnel_send, true},
    };
    for (const auto &way : ways) {
        for (const char *method : {"http", "https"}) {
            SCOPED_TRACE(std::string(way.name) + " over " + method);
            certs.configure("");
            EXPECT_EQ(*(method + 4) == '\0' || way.falls_back, text_holds(captured(way.send_to, method), "/secret"));
            for (const char *config : {"ca_file=<ca>", "pin_sha256={ca}", "check_time=no"}) {
                certs.configure(config);
                LogLines log;
                EXPECT_FALSE(text_holds(captured(way.send_to, method), "/secret"));
                EXPECT_EQ(1, log.count("refused: ") + log.count("Plain text to ")) << log.text();
            }
        }
    }
    LogLines log;
    certs.configure("ca_file=<ca>");
    EXPECT_EQ(-1, init_cfg_parse_text("{\"method\":\"http\",\"host\":\"127.0.0.1\",\"port\":1}"));
    EXPECT_TRUE(log.has("[ERR] NM's method is 'http', but [nm_tls] of config.ini asks for https!\n"));
}

// A tunnel end that is connected again is still expected to be the one that NM named.
TEST(TlsVerify, ReconnectKeepsTheName)
{
    start_process_once();
    Certificates certs;
    certs.configure("ca_file=<ca>");
    Peer peer([&](int listener) {
        for (int i = 0; i < 3; i++)
            tls_serve(&certs, TLS, "name-only", accept(listener, nullptr, nullptr));
    });
    EXPECT_EQ(1, conn_add_as(REMOTE_TELNET_SERVER, connect_to(peer.port), CONN_TLS, "nm.test", 0));
    EXPECT_EQ(1, conn_reconnect(REMOTE_TELNET_SERVER));
    EXPECT_EQ(0, conn_add_as(REMOTE_TELNET_SERVER, connect_to(peer.port), CONN_TLS, nullptr, 0));
    conn_remove_all();
}
