// peer.h - a TCP peer on 127.0.0.1 that plays a script on a thread of its own; NM played by it, for the device A1.
#pragma once

#include <functional>
#include <stdlib.h>
#include <string>
#include <thread>

#include "net_peer.h"
#include "transport/nm_sign.h"

struct Peer {
    std::string port;
    int listener;
    std::thread thread;

    explicit Peer(std::function<void(int listener)> script)
    {
        listener = listen_socket(&port);
        thread = std::thread(script, listener);
    }
    ~Peer()
    {
        thread.join();
        close(listener);
    }
};

inline int peer_accept(int listener)
{
    return readable_within(listener, 20000) ? accept(listener, nullptr, nullptr) : -1;
}

// One HTTP request: its head and as many bytes as its Content-Length says.
inline std::string peer_read_request(int fd)
{
    std::string all;
    while (all.find("\r\n\r\n") == std::string::npos) {
        std::string byte = read_upto(fd, 1);
        if (byte.empty())
            return all;
        all += byte;
    }
    size_t length = all.find("Content-Length: ");
    return length == std::string::npos ? all : all + read_upto(fd, strtoul(all.c_str() + length + 16, nullptr, 10));
}

inline void peer_send(int fd, const std::string &text)
{
    EXPECT_EQ((ssize_t)text.size(), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// Accepts once and answers one request after the other with the texts given, then closes.
inline std::function<void(int)> answering(std::vector<std::string> answers, std::string *requests = nullptr)
{
    return [=](int listener) {
        int fd = peer_accept(listener);
        for (const std::string &answer : answers) {
            std::string request = peer_read_request(fd);
            if (requests)
                *requests += request;
            peer_send(fd, answer);
        }
        close(fd);
    };
}

// The device A1 and its NM on this port of 127.0.0.1, as after an init cfg.
inline void nm_set(const std::string &port, const char *method = "http")
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    PluginInfo *next = &edit.next;
    plugin_info_edit_text(&edit, next->nm_method, method);
    plugin_info_edit_text(&edit, next->nm_ip, "127.0.0.1");
    plugin_info_edit_text(&edit, next->nm_port, port.c_str());
    plugin_info_edit_text(&edit, next->dev_sn, "A1");
    plugin_info_edit_text(&edit, next->ptype, "7");
    plugin_info_edit_text(&edit, next->protocol_version, "1.3");
    plugin_info_edit_commit(&edit);
    nm_sign_init();
}

// What NM on that port then receives, to the byte.
inline std::string nm_request_text(const char *path, const std::string &port, const std::string &body)
{
    return std::string("POST ") + path + " HTTP/1.1\r\nHOST: 127.0.0.1:" + port +
           "\r\nAccept:\r\nContent-Type: application/json\r\nsecretKey: b7c2bef02ff598441ae8d05209dca008\r\n"
           "pver: 1.3\r\ndeviceSn: A1\r\nptype: 7\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}
