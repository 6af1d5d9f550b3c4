// session_peers.h - the two peers of the agent on 127.0.0.1, for one test: a device at the other end of the link
// DEV_TCP, and an NM that answers by path and keeps what it was sent.
#pragma once

#include "log_capture.h"
#include "nm_peer.h"
#include "runtime/stop.h"
#include "transport/conn_registry.h"

// Registers a device link and returns the device's end of it.
inline int device_link(void)
{
    std::string port;
    int listener = listen_socket(&port);
    SocketConn conn = tcp_connect("127.0.0.1", port.c_str(), nullptr, nullptr, 0, 0);
    EXPECT_GT(conn.socket_fd, 0);
    conn_add(DEV_TCP, conn, 0);
    int fd = accept(listener, nullptr, nullptr);
    close(listener);
    return fd;
}

inline std::string frame(const std::string &text)
{
    uint8_t length[4];
    le32_put(length, (uint32_t)text.size());
    return std::string((char *)length, sizeof(length)) + text;
}

// The next frame's text as the device sees it; "(none)" when nothing comes within wait_ms.
inline std::string device_read(int fd, int wait_ms = 5000)
{
    if (!readable_within(fd, wait_ms))
        return "(none)";
    std::string length = read_upto(fd, 4);
    return length.size() == 4 ? read_upto(fd, le32_get(length.data())) : "(end)";
}
