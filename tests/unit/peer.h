// peer.h - a TCP peer on 127.0.0.1 that plays a script on a thread of its own. Every wait ends after 20 s, so that a
// failing test does not hang.
#pragma once

#include <arpa/inet.h>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

struct Peer {
    int listener;
    std::string port;
    std::thread thread;

    explicit Peer(std::function<void(int listener)> script)
    {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(address);
        if (bind(listener, (sockaddr *)&address, len) != 0 || listen(listener, 8) != 0 ||
            getsockname(listener, (sockaddr *)&address, &len) != 0)
            abort();
        port = std::to_string(ntohs(address.sin_port));
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
    pollfd waiting = {listener, POLLIN, 0};
    return poll(&waiting, 1, 20000) > 0 ? accept(listener, nullptr, nullptr) : -1;
}

// Reads until wanted bytes are there or the other side ends.
inline std::string peer_read(int fd, size_t wanted)
{
    std::string all;
    char chunk[65536];
    while (all.size() < wanted) {
        pollfd waiting = {fd, POLLIN, 0};
        size_t room = wanted - all.size() < sizeof(chunk) ? wanted - all.size() : sizeof(chunk);
        ssize_t got = poll(&waiting, 1, 20000) > 0 ? recv(fd, chunk, room, 0) : -1;
        if (got <= 0)
            break;
        all.append(chunk, (size_t)got);
    }
    return all;
}

// One HTTP request: its head and as many bytes as its Content-Length says.
inline std::string peer_read_request(int fd)
{
    std::string all;
    while (all.find("\r\n\r\n") == std::string::npos) {
        std::string byte = peer_read(fd, 1);
        if (byte.empty())
            return all;
        all += byte;
    }
    size_t length = all.find("Content-Length: ");
    return length == std::string::npos ? all : all + peer_read(fd, strtoul(all.c_str() + length + 16, nullptr, 10));
}

inline void peer_send(int fd, const std::string &text)
{
    for (size_t sent = 0; sent < text.size();) {
        ssize_t got = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (got <= 0)
            return;
        sent += (size_t)got;
    }
}
