// nm_peer.h - an NM on 127.0.0.1 that keeps what it was sent, for one test. It answers by the last element of the path,
// every other post with status 200.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <condition_variable>
#include <map>
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

typedef std::vector<std::string> Texts;

struct NmPeer {
    int listen_fd = -1;
    std::thread thread;
    std::mutex mutex; // posts and answers
    std::condition_variable arrived;
    std::vector<NmPost> posts;
    std::map<std::string, Texts> answers; // taken in turn, the last one stays; an empty one closes the connection
};

inline std::string http_ok(const std::string &json)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(json.size()) + "\r\n\r\n" + json;
}

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

inline std::string nm_peer_answer(NmPeer *peer, const NmPost &post)
{
    std::lock_guard<std::mutex> lock(peer->mutex);
    peer->posts.push_back(post);
    auto found = peer->answers.find(post.path.substr(post.path.rfind('/') + 1));
    if (found == peer->answers.end())
        return http_ok("{\"status\":200}");
    std::string answer = found->second.front();
    if (found->second.size() > 1)
        found->second.erase(found->second.begin());
    return answer;
}

inline void nm_peer_serve(NmPeer *peer, int fd)
{
    std::string pending;
    NmPost post;
    while (nm_peer_read(fd, &pending, &post)) {
        std::string answer = nm_peer_answer(peer, post);
        peer->arrived.notify_all();
        if (answer.empty() || send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
            break;
    }
    close(fd);
}

inline void nm_peer_accept(NmPeer *peer)
{
    std::vector<std::thread> served;
    int fd;
    while ((fd = accept(peer->listen_fd, nullptr, nullptr)) >= 0)
        served.emplace_back(nm_peer_serve, peer, fd);
    for (std::thread &one : served)
        one.join();
}

// Starts the peer and makes it the NM of the settings, with a protocol version and a serial number.
inline void nm_peer_start(NmPeer *peer, const char *version, const char *serial)
{
    std::string port;
    peer->listen_fd = listen_socket(&port);
    peer->thread = std::thread(nm_peer_accept, peer);

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

inline void nm_peer_answer_set(NmPeer *peer, const char *path_end, const Texts &answers)
{
    std::lock_guard<std::mutex> lock(peer->mutex);
    peer->answers[path_end] = answers;
}

// Of all posts so far.
inline Texts nm_peer_paths(NmPeer *peer)
{
    Texts paths;
    for (const NmPost &post : nm_peer_posts(peer))
        paths.push_back(post.path);
    return paths;
}

inline Texts nm_peer_bodies(NmPeer *peer)
{
    Texts bodies;
    for (const NmPost &post : nm_peer_posts(peer))
        bodies.push_back(post.body);
    return bodies;
}

// The agent's connections are closed first (conn_remove_all).
inline void nm_peer_end(NmPeer *peer)
{
    shutdown(peer->listen_fd, SHUT_RDWR);
    peer->thread.join();
    close(peer->listen_fd);
}
