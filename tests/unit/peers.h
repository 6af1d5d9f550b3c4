// peers.h - the other ends on 127.0.0.1, each for one test: plain sockets, a TLS server, a scripted TCP peer, NM and
// the device.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <mutex>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "device_service.h"
#include "nm_http.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "sim_tls.h"
#include "support.h"
#include "transport/conn_ref.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"
#include "transport/connect.h"
#include "transport/nm_post.h"
#include "transport/nm_sign.h"
#include "transport/tls.h"

// As the process does at start-up.
inline void start_process_once()
{
    signal(SIGPIPE, SIG_IGN);
    stop_init(nullptr);
}

// With a time limit for receiving and accepting, which accepted sockets inherit.
inline int bound_socket(int type, std::string *port, int recv_buf_size = 0)
{
    int fd = socket(AF_INET, type, 0);
    const struct timeval limit = {k_socket_wait_ms / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (recv_buf_size > 0) // before listen: accepted sockets inherit it
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recv_buf_size, sizeof(recv_buf_size));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(address);
    EXPECT_EQ(0, bind(fd, (struct sockaddr *)&address, len));
    EXPECT_EQ(0, getsockname(fd, (struct sockaddr *)&address, &len));
    *port = std::to_string(ntohs(address.sin_port));
    return fd;
}

inline int listen_socket(std::string *port, int recv_buf_size = 0)
{
    int fd = bound_socket(SOCK_STREAM, port, recv_buf_size);
    EXPECT_EQ(0, listen(fd, 16));
    return fd;
}

// Its other end is this port of 127.0.0.1.
inline void endpoint_set(Endpoint *endpoint, const std::string &port)
{
    (void)text_set(endpoint->remote_ip, "127.0.0.1");
    (void)text_set(endpoint->remote_port, port.c_str());
}

inline SocketConn connect_to(const std::string &port)
{
    SocketConn conn = tcp_connect("127.0.0.1", port.c_str(), nullptr, nullptr, 0, 0);
    EXPECT_GT(conn.socket_fd, 0);
    return conn;
}

// A fresh connection; returns the peer's end of it.
inline int connect_pair(SocketConn *conn, int recv_buf_size = 0)
{
    std::string port;
    const int listener = listen_socket(&port, recv_buf_size);
    *conn = connect_to(port);
    const int peer = accept(listener, nullptr, nullptr);
    close(listener);
    return peer;
}

inline bool readable_within(int fd, int timeout_ms)
{
    struct pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, timeout_ms) > 0;
}

// Sends until the peer's and the own buffer stay full.
inline void fill_buffers(int fd)
{
    std::string data(100000, 'x');
    do {
        while (send(fd, data.data(), data.size(), 0) > 0) {
        }
    } while (wait_fd(fd, POLLOUT, 300) == WAIT_READY);
}

inline int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; fd++)
        count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

// A TLS server for one connection; its socket is blocking.
struct TlsPeer {
    SSL_CTX *ctx = sim_tls_server();
    SSL *ssl = nullptr;
    int fd = -1;

    // signatures: the only kinds that it offers, null for its defaults.
    explicit TlsPeer(const char *signatures = nullptr)
    {
        SSL_CTX_set_security_level(ctx, 0);
        EXPECT_TRUE(!signatures || SSL_CTX_set1_sigalgs_list(ctx, signatures) == 1);
    }
    TlsPeer(const TlsPeer &) = delete;
    ~TlsPeer()
    {
        SSL_free(ssl);
        SSL_CTX_free(ctx);
        if (fd >= 0)
            close(fd);
    }
    bool handshake()
    {
        ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        return SSL_accept(ssl) == 1;
    }
    // What one record brings, up to 4,096 bytes; "" at the end.
    std::string read()
    {
        char bytes[4096];
        const int count = SSL_read(ssl, bytes, sizeof(bytes));
        return std::string(bytes, (size_t)std::max(count, 0));
    }
    void write(const std::string &text)
    {
        EXPECT_EQ((int)text.size(), SSL_write(ssl, text.data(), (int)text.size()));
    }
    // The record that carries text, as bytes for the wire: to be sent in pieces of the test's choice.
    std::string record(const std::string &text)
    {
        BIO *memory = BIO_new(BIO_s_mem());
        SSL_set0_wbio(ssl, memory);
        write(text);
        char *bytes = nullptr;
        const long len = BIO_get_mem_data(memory, &bytes);
        return std::string(bytes, (size_t)len);
    }
};

// The agent's connection to a peer with a small buffer, plain or over TLS; with a reference when shared.
struct Link {
    TlsPeer peer; // plain: without a session
    SocketConn conn;

    explicit Link(bool shared, bool encrypted = false, const char *signatures = nullptr) : peer(signatures)
    {
        start_process_once();
        std::string port;
        const int listener = listen_socket(&port, 2048);
        conn = connect_to(port);
        std::thread server([&] {
            peer.fd = accept(listener, nullptr, nullptr);
            EXPECT_TRUE(!encrypted || peer.handshake());
        });
        conn.ssl = encrypted ? tls_init(conn.socket_fd, nullptr) : nullptr;
        EXPECT_EQ(encrypted, conn.ssl != nullptr);
        server.join();
        close(listener);
        if (shared)
            conn.ref = conn_ref_new(&conn);
    }
    ~Link()
    {
        if (conn.ref)
            conn_ref_release(conn.ref);
        else
            socket_close_private(&conn);
    }
    // Over TLS as one part, else as several; returns what conn_send does.
    int send(const std::string &text, SendKind kind = SEND_MESSAGE)
    {
        const size_t first = conn.ssl ? text.size() : 2;
        SendPart parts[] = {{text.data(), first}, {"", 0}, {text.data() + first, text.size() - first}};
        return conn_send(&conn, kind, parts, conn.ssl ? 1 : 3);
    }
    // What the peer gets: len bytes, or fewer at the end.
    std::string read(size_t len)
    {
        std::string text;
        for (std::string more = "?"; text.size() < len && !more.empty(); text += more)
            more = peer.ssl ? peer.read() : fd_read(peer.fd, len);
        return text;
    }
};

inline std::string port_of(const DeviceService &service)
{
    return std::to_string(service.port());
}

// One HTTP request: its head and as many bytes as its Content-Length says. Empty at the end of the connection.
inline std::string peer_read_request(int fd)
{
    std::string all;
    while (all.find("\r\n\r\n") == std::string::npos) {
        std::string byte = fd_read(fd, 1);
        if (byte.empty())
            return "";
        all += byte;
    }
    size_t length = all.find("Content-Length: ");
    return length == std::string::npos ? all : all + fd_read(fd, strtoul(all.c_str() + length + 16, nullptr, 10));
}

// The device A1 and its NM on this port of 127.0.0.1, as after an init cfg.
inline void nm_set(const std::string &port, const char *method = "http")
{
    info_edit([&](PluginInfo *next) {
        (void)text_set(next->nm_method, method);
        (void)text_set(next->nm_ip, "127.0.0.1");
        (void)text_set(next->nm_port, port.c_str());
        (void)text_set(next->dev_sn, "A1");
        (void)text_set(next->ptype, "7");
        (void)text_set(next->protocol_version, "1.3");
    });
    nm_sign_init();
}

inline std::string http_ok(const std::string &json)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(json.size()) + "\r\n\r\n" + json;
}

// NM for the device A1, in force for as long as it lives. It keeps what it was sent and answers by the last element of
// the path, every other post with status 200.
struct NmPeer {
    std::mutex mutex; // all of these
    Texts requests, paths, bodies;
    std::map<std::string, Texts> answers; // taken in turn, the last one stays; an empty one closes the connection
    DeviceService service{[this](int fd) {
        for (std::string answer = answer_to(fd); !answer.empty() && fd_send(fd, answer);)
            answer = answer_to(fd);
    }};
    const std::string port = port_of(service);

    NmPeer()
    {
        nm_set(port);
    }
    ~NmPeer()
    {
        conn_remove_all();
    }
    std::string answer_to(int fd)
    {
        readable_within(fd, -1);
        HttpRequest request;
        std::string wrong;
        const std::string bytes = peer_read_request(fd);
        if (http_request_cut(bytes, &request, &wrong) <= 0)
            return "";
        std::lock_guard<std::mutex> lock(mutex);
        requests.push_back(bytes);
        paths.push_back(request.path);
        bodies.push_back(request.body);
        auto found = answers.find(request.path.substr(request.path.rfind('/') + 1));
        if (found == answers.end())
            return http_ok("{\"status\":200}");
        std::string answer = found->second.front();
        if (found->second.size() > 1)
            found->second.erase(found->second.begin());
        return answer;
    }
    void answer_set(const char *path_end, const Texts &texts)
    {
        std::lock_guard<std::mutex> lock(mutex);
        answers[path_end] = texts;
    }
    // now(&NmPeer::paths), or another of the lists
    Texts now(Texts NmPeer::*list)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return this->*list;
    }
};

// Registers a device link and returns the device's end of it.
inline int device_link()
{
    SocketConn conn;
    int fd = connect_pair(&conn);
    conn_add(DEV_TCP, conn, 0);
    return fd;
}

inline std::string frame(const std::string &text)
{
    char length[4];
    le32_put(length, (uint32_t)text.size());
    return std::string(length, sizeof(length)) + text;
}

// The next frame's text as the device sees it; "(none)" when nothing comes within wait_ms.
inline std::string device_read(int fd, int wait_ms = 5000)
{
    if (!readable_within(fd, wait_ms))
        return "(none)";
    std::string length = fd_read(fd, 4);
    return length.size() == 4 ? fd_read(fd, le32_get(length.data())) : "(end)";
}
