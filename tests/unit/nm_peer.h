// nm_peer.h - an NM on 127.0.0.1 that answers every post with status 200 and keeps what it was sent, for one test.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net_peer.h"
#include "runtime/plugin_info.h"

struct NmPost {
    std::string path;
    std::string body;
};

struct NmPeer {
    int listen_fd = -1;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<NmPost> posts;
};

// Reads one request into *post; false at the end of the connection.
inline bool nm_peer_read(int fd, std::string *pending, NmPost *post)
{
    char chunk[4096];
    for (;;) {
        size_t head = pending->find("\r\n\r\n");
        const char *length = strcasestr(pending->c_str(), "Content-Length:");
        size_t need = head == std::string::npos ? 0 : head + 4 + (length ? strtoul(length + 15, nullptr, 10) : 0);
        if (need > 0 && pending->size() >= need) {
            size_t path = pending->find(' ') + 1;
            post->path = pending->substr(path, pending->find(' ', path) - path);
            post->body = pending->substr(head + 4, need - head - 4);
            pending->erase(0, need);
            return true;
        }
        ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
        if (got <= 0)
            return false;
        pending->append(chunk, (size_t)got);
    }
}

inline void nm_peer_serve(NmPeer *peer)
{
    static const char k_answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 14\r\n\r\n{\"status\":200}";
    int fd;
    while ((fd = accept(peer->listen_fd, nullptr, nullptr)) >= 0) {
        std::string pending;
        NmPost post;
        while (nm_peer_read(fd, &pending, &post)) {
            {
                std::lock_guard<std::mutex> lock(peer->mutex);
                peer->posts.push_back(post);
            }
            peer->arrived.notify_all();
            if (send(fd, k_answer, sizeof(k_answer) - 1, MSG_NOSIGNAL) < 0)
                break;
        }
        close(fd);
    }
}

// Starts the peer and makes it the NM of the settings, with a protocol version and a serial number.
inline void nm_peer_start(NmPeer *peer, const char *version, const char *serial)
{
    std::string port;
    peer->listen_fd = listen_socket(&port);
    peer->thread = std::thread(nm_peer_serve, peer);

    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.nm_method, "http");
    (void)plugin_info_edit_text(&edit, edit.next.nm_ip, "127.0.0.1");
    (void)plugin_info_edit_text(&edit, edit.next.nm_port, port.c_str());
    (void)plugin_info_edit_text(&edit, edit.next.protocol_version, version);
    (void)plugin_info_edit_text(&edit, edit.next.dev_sn, serial);
    plugin_info_edit_commit(&edit);
}

inline void nm_peer_wait(NmPeer *peer, size_t count)
{
    std::unique_lock<std::mutex> lock(peer->mutex);
    peer->arrived.wait(lock, [&] { return peer->posts.size() >= count; });
}

inline std::vector<NmPost> nm_peer_posts(NmPeer *peer)
{
    std::lock_guard<std::mutex> lock(peer->mutex);
    return peer->posts;
}

// The agent's connections are closed first (conn_remove_all).
inline void nm_peer_end(NmPeer *peer)
{
    shutdown(peer->listen_fd, SHUT_RDWR);
    peer->thread.join();
    close(peer->listen_fd);
}
