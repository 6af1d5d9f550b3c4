// tunnel.h - half tunnels: one registered TCP connection of a tunnel type; and what both tunnels' requests have in common.
#pragma once

#include <atomic>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "transport/conn_registry.h"

// Ends of a half tunnel; empty local texts bind nothing.
typedef Endpoint TunnelPeer;

// Closes a usable connection of the type, connects anew and registers. 0, or -1 (logged). Up to 2 s, plus TLS.
int half_tunnel_create(ConnectionType type, const TunnelPeer *peer);

// Closes both in the order given unless they are DISCONNECTED. Always 0.
int half_tunnel_close(ConnectionType first, ConnectionType second);

// NM's request for a tunnel.
struct TunnelRequest {
    char action[512];
    char host[512]; // resolved
    char port[PORT_TEXT_SIZE];
    char token[512];
    char sessionid[512];
    int32_t key;
};

// Reads the "param" object of the command. -1 for text that is not JSON, a bad port (both logged), or a field that is
// missing (logged with invalid_line). port is NM's, plus one when NM is reached over https.
int tunnel_request_parse(const char *payload, const char *invalid_line, TunnelRequest *request);

// The authentication text into buf; it goes out with its NUL.
void tunnel_auth_text(const TunnelRequest *request, char *buf, size_t buf_cap);

// One tunnel's command lock (long): whoever holds it may open, close or relay. Commands announce themselves first, so that
// a relay or a hanging set-up lets go; the tunnel's own thread only tries. Waits made under it are called off by waiting.
struct TunnelLock {
    pthread_mutex_t mutex;
    std::atomic<uint32_t> waiting; // commands that want the lock
};
