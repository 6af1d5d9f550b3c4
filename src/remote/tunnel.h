// tunnel.h - half tunnels: one registered TCP connection of a tunnel type; and what both tunnels' requests have in
// common.
#pragma once

#include <atomic>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "runtime/wait.h"
#include "transport/conn_registry.h"

// Ends of a half tunnel; empty local texts bind nothing.
typedef Endpoint TunnelPeer;

// Closes a usable connection of the type, connects anew and registers as conn_add does. 0, or -1 (logged). Up to 2 s,
// plus TLS.
int half_tunnel_create(ConnectionType type, const TunnelPeer *peer);

// Closes both in the order given unless they are DISCONNECTED. Always 0.
int half_tunnel_close(ConnectionType first, ConnectionType second);

// NM's request for a tunnel.
struct TunnelRequest {
    char action[512];
    char host[512]; // resolved
    char name[512]; // host as NM named it, which is what its certificate says
    char port[PORT_TEXT_SIZE];
    ConnSecurity security; // decided with the port, which depends on it
    char token[512];
    char sessionid[512];
    int32_t key;
};

// The half tunnel to the request's host and port, bound to the agent's local address, with the request's security. As
// half_tunnel_create otherwise.
int tunnel_nm_half_create(ConnectionType type, const TunnelRequest *request);

// Logs and sends the authentication text with its NUL on nm (held). Returns the send's result; -1, with nothing sent,
// when the caller's work was called off: then a TLS handshake may have been cut short, and no token may be sent in
// plain.
int tunnel_auth_send(const TunnelRequest *request, const SocketConn *nm);

// One tunnel's command lock (long): whoever holds it may open, close or relay. Commands announce themselves first, so
// that a relay or a hanging set-up releases it; the tunnel's own thread never waits for it. Waits made under it are
// called off by waiting, and by whatever calls off the thread that took it: a restart ends a hanging set-up too.
struct TunnelLock {
    pthread_mutex_t mutex;
    std::atomic<uint32_t> waiting; // commands that want the lock
};

// For the tunnel's own thread: takes the lock without waiting and has the waits of the calling thread called off by the
// next command. 0 with the call-off that was in force in before, or -1 as soon as a command holds or wants the lock.
int tunnel_try_lock(TunnelLock *lock, CallOff *before);

void tunnel_unlock(TunnelLock *lock, const CallOff *before);

// What NM's command does to one of the tunnels.
struct TunnelCommands {
    TunnelLock *lock;
    const char *invalid_line;                          // logged for a request with a missing field
    const char *stopped_line;                          // logged before a stop
    int (*start_locked)(const TunnelRequest *request); // the command's result
    void (*stop_locked)(void);
};

// Reads the "param" object of the command and carries it out under the lock: "start", or a stop for any other action.
// start_locked's result; 0 after a stop; -1 for text that is not JSON, a bad port or a missing field (all logged), and
// when the wait for the lock was cut short. The request's port is NM's, plus one when NM is reached over https.
int tunnel_command_handle(const TunnelCommands *tunnel, const char *payload);

enum TunnelKind : uint8_t { TUNNEL_WEB = 0, TUNNEL_TELNET = 1 };

// What a tunnel has carried, authentication not counted. A tunnel is open from its authentication (telnet: until both
// halves stand) to its end; when it is not, the values are the last one's, and 0 before the first. Counted always.
struct TunnelFacts {
    bool is_open;
    int64_t since_ms;        // monotonic clock (wait_now_ms)
    uint64_t from_nm, to_nm; // bytes on NM's half; web: with the frame headers
    uint32_t ids;            // web: msg_ids that got a slot, each use counted; telnet: 0
};

// Any thread; a short lock inside.
void remote_web_facts_get(TunnelFacts *facts);
void remote_telnet_facts_get(TunnelFacts *facts);

// Written by the tunnels. open begins anew; add does nothing while the tunnel is not open.
void tunnel_facts_open(TunnelKind kind);
void tunnel_facts_add(TunnelKind kind, uint64_t from_nm, uint64_t to_nm, uint32_t ids);
void tunnel_facts_close(TunnelKind kind);
