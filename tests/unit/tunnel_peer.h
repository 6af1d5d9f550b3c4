// tunnel_peer.h - both ends of a remote-access tunnel as the tests play them: NM's endpoint, plain or over TLS, and the
// device's server; and the agent's tunnel thread between them.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "net_peer.h"
#include "runtime/plugin_info_internal.h"
#include "runtime/stop_internal.h"
#include "runtime/wait.h"

// True as soon as condition holds, false after 10 s.
template <class Condition> bool holds_soon(Condition condition)
{
    for (int64_t end = wait_now_ms() + 10000; wait_now_ms() < end; usleep(1000)) {
        if (condition())
            return true;
    }
    return condition();
}

// NM's end. send and recv may run on two threads at once.
struct NmEnd {
    std::string port; // what the "start" command names
    bool tls;
    int listener;
    int fd = -1;
    TlsPeer peer = {};
    std::mutex ssl_mutex;

    explicit NmEnd(bool with_tls = false) : tls(with_tls)
    {
        listener = listen_socket(&port);
        if (tls) {
            peer = tls_peer_new(1024);                  // quickly made
            port = std::to_string(std::stoi(port) - 1); // over https the agent adds one
        }
    }

    ~NmEnd()
    {
        drop();
        close(listener);
        if (tls)
            SSL_CTX_free(peer.ctx);
    }

    bool accept_agent()
    {
        drop();
        fd = accept(listener, nullptr, nullptr);
        if (!tls)
            return fd >= 0;
        peer.ssl = SSL_new(peer.ctx);
        SSL_set_fd(peer.ssl, fd);
        bool done = SSL_accept(peer.ssl) == 1;
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return done;
    }

    void drop()
    {
        if (peer.ssl)
            SSL_free(peer.ssl);
        peer.ssl = nullptr;
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    int call(std::function<int()> io)
    {
        if (!tls)
            return io();
        std::lock_guard<std::mutex> guard(ssl_mutex);
        return io();
    }

    // False when the agent is gone. One TLS record carries up to 16 KiB of it.
    bool send(const std::string &bytes)
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const char *rest = bytes.data() + sent;
            size_t len = bytes.size() - sent;
            int count = call([&] {
                return tls ? SSL_write(peer.ssl, rest, (int)len)
                           : (int)::send(fd, rest, len, MSG_DONTWAIT | MSG_NOSIGNAL);
            });
            if (count > 0) {
                sent += (size_t)count;
                continue;
            }
            struct pollfd one = {fd, POLLOUT, 0};
            if (poll(&one, 1, 5000) <= 0 || (one.revents & (POLLERR | POLLHUP)))
                return false;
        }
        return true;
    }

    // Up to len bytes; fewer at the end of the stream or after wait_ms of silence.
    std::string recv(size_t len, int wait_ms = 5000)
    {
        std::string data(len, '\0');
        size_t got = 0;
        while (got < len) {
            int count = call([&] {
                return tls ? SSL_read(peer.ssl, &data[got], (int)(len - got))
                           : (int)::recv(fd, &data[got], len - got, MSG_DONTWAIT);
            });
            if (count > 0) {
                got += (size_t)count;
                continue;
            }
            bool again = tls ? SSL_get_error(peer.ssl, count) == SSL_ERROR_WANT_READ
                             : count < 0 && (errno == EAGAIN || errno == EINTR);
            if (!again || !readable_within(fd, wait_ms))
                break;
        }
        data.resize(got);
        return data;
    }
};

// The device's server: each connection gets a thread that runs serve(fd); the connection is closed behind it.
struct DeviceEnd {
    std::string port;
    int listener;
    std::function<void(int)> serve;
    std::atomic<int> accepted{0};
    std::atomic<int> alive{0};
    std::thread acceptor;

    explicit DeviceEnd(std::function<void(int)> work, int recv_buf_size = 0) : serve(work)
    {
        listener = listen_socket(&port, recv_buf_size);
        acceptor = std::thread([this] {
            for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
                accepted++;
                alive++;
                std::thread([this, fd] {
                    serve(fd);
                    close(fd);
                    alive--;
                }).detach();
            }
        });
    }

    ~DeviceEnd()
    {
        shutdown(listener, SHUT_RDWR);
        acceptor.join();
        EXPECT_TRUE(holds_soon([this] { return alive == 0; }));
        close(listener);
    }
};

// The agent's thread of one tunnel, from a clean start to a stop as the process makes it.
struct TunnelAgent {
    std::thread thread;

    TunnelAgent(void (*init)(), void (*turn)(), bool https)
    {
        start_process_once();
        plugin_info_reset_for_test();
        init();
        std::unique_ptr<PluginInfoEdit> edit(new PluginInfoEdit);
        plugin_info_edit_begin(edit.get());
        plugin_info_edit_text(edit.get(), edit->next.plugin_version, "0.1");
        plugin_info_edit_text(edit.get(), edit->next.dev_sn, "SN1");
        plugin_info_edit_text(edit.get(), edit->next.nm_method, https ? "HTTPS" : "http");
        plugin_info_edit_commit(edit.get());
        thread = std::thread([turn] {
            while (!g_exit_flag)
                turn();
        });
    }

    ~TunnelAgent()
    {
        stop_request(15);
        g_exit_flag = 1;
        thread.join();
        stop_reset_for_test();
    }
};

inline std::string tunnel_command(const char *action, const std::string &port)
{
    return std::string("{\"type\":\"remote\",\"param\":{\"action\":\"") + action +
           "\",\"host\":\"127.0.0.1\",\"port\":" + port + ",\"token\":\"TOK\",\"key\":7,\"sessionid\":\"S1\"}}";
}

constexpr char k_tunnel_auth[] =
    "{\"ver\":\"0.1\",\"deviceSn\":\"SN1\",\"token\":\"TOK\",\"key\":7,\"sessionid\":\"S1\"}";

inline std::string auth_bytes()
{
    return std::string(k_tunnel_auth, sizeof(k_tunnel_auth)); // its NUL goes out too
}

// Bytes that differ by seed and place, all values among them.
inline std::string pattern(size_t len, unsigned seed)
{
    std::string bytes(len, '\0');
    for (size_t i = 0; i < len; i++)
        bytes[i] = (char)((i * 31 + i / 251 + seed * 97) & 0xFF);
    return bytes;
}
