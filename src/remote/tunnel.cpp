#include "remote/tunnel.h"

#include <cjson/cJSON.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "transport/conn_send.h"
#include "transport/connect.h"
#include "transport/field_extract.h"
#include "transport/resolve.h"

constexpr int WEB_SERVER_BUFFER_SIZE = 32768; // bytes, each direction; the other types take the default
constexpr uint32_t PORT_LIMIT = 65536;
constexpr size_t AUTH_TEXT_SIZE = 4096; // four texts of 511 characters at most, a number and the frame

static pthread_mutex_t s_facts_mutex = PTHREAD_MUTEX_INITIALIZER; // short
static TunnelFacts s_facts[TUNNEL_TELNET + 1];                    // under s_facts_mutex, by kind

// 0 when registered, or when a TLS handshake was cut short; -1 (logged) without a connection. host: the peer's name in
// its certificate.
static int half_tunnel_open(ConnectionType type, const TunnelPeer *peer, ConnSecurity security, const char *host)
{
    const char *name = conn_type_name(type);
    log_info("Preparing half tunnel... type: %s, peer: %s:%s (local: %s:%s)", name, peer->remote_ip, peer->remote_port,
             peer->local_ip, peer->local_port);
    if (conn_check(type))
        conn_remove_if_connected(type, 1);

    // An empty text does not resolve; null binds nothing.
    const char *local_ip = peer->local_ip[0] ? peer->local_ip : nullptr;
    const char *local_port = peer->local_port[0] ? peer->local_port : nullptr;
    int buffer_size = type == REMOTE_WEB_SERVER ? WEB_SERVER_BUFFER_SIZE : 0;
    SocketConn conn = tcp_connect(peer->remote_ip, peer->remote_port, local_ip, local_port, buffer_size, buffer_size);
    if (conn.socket_fd < 1) {
        log_warn("Create connection to IP: %s, Port: %s failed!", peer->remote_ip, peer->remote_port);
        return -1;
    }
    log_info("Create %s half tunnel [remote (%s:%s), local (%s:%s)] successfully.", name, peer->remote_ip,
             peer->remote_port, peer->local_ip, peer->local_port);
    return conn_add_as(type, conn, security, host, 1) ? 0 : -1;
}

int half_tunnel_create(ConnectionType type, const TunnelPeer *peer)
{
    if (!peer) {
        log_error("conn_info is NULL!");
        return -1;
    }
    return half_tunnel_open(type, peer, conn_security_wanted(type), peer->remote_ip);
}

int half_tunnel_close(ConnectionType first, ConnectionType second)
{
    const ConnectionType types[] = {first, second};
    for (ConnectionType type : types) {
        if (conn_info_get(type).status != DISCONNECTED)
            conn_remove_if_connected(type, 1);
    }
    return 0;
}

// Reads all six fields, so that each missing one has its line. -1 when any failed; *port stays -1 when there is none.
static int param_read(const cJSON *param, TunnelRequest *request, int32_t *port)
{
    int failed = json_get_string(param, "action", request->action, sizeof(request->action));
    int host = json_get_string(param, "host", request->host, sizeof(request->host));
    (void)text_set(request->name, request->host);
    if (host != 0 || resolve_host(request->host, sizeof(request->host)) != 0)
        failed = -1;
    failed |= json_get_int(param, "port", port);
    failed |= json_get_string(param, "token", request->token, sizeof(request->token));
    failed |= json_get_int(param, "key", &request->key);
    failed |= json_get_string(param, "sessionid", request->sessionid, sizeof(request->sessionid));
    return failed;
}

static int request_parse(const char *payload, const char *invalid_line, TunnelRequest *request)
{
    memset(request, 0, sizeof(*request));
    cJSON *root = json_parse_logged(payload);
    if (!root)
        return -1;
    int32_t port = -1;
    int failed = param_read(cJSON_GetObjectItem(root, "param"), request, &port);
    cJSON_Delete(root);

    if ((uint32_t)port >= PORT_LIMIT) {
        log_error("Invalid port: %d!", port);
        return -1;
    }
    request->security = plugin_info_nm_is_https() ? CONN_TLS : CONN_PLAIN;
    (void)text_fmt(request->port, "%d", request->security == CONN_TLS ? port + 1 : port); // TLS is on the next port
    if (failed) {
        log_warn("%s", invalid_line);
        return -1;
    }
    return 0;
}

int tunnel_nm_half_create(ConnectionType type, const TunnelRequest *request)
{
    PluginInfo info;
    plugin_info_get(&info);
    TunnelPeer peer = {};
    (void)text_set(peer.remote_ip, request->host);
    (void)text_set(peer.remote_port, request->port);
    (void)text_set(peer.local_ip, info.local_ip);
    return half_tunnel_open(type, &peer, request->security, request->name);
}

int tunnel_auth_send(const TunnelRequest *request, const SocketConn *nm)
{
    if (wait_is_cut())
        return -1;
    PluginInfo info;
    plugin_info_get(&info);
    char text[AUTH_TEXT_SIZE];
    (void)text_fmt(text, "{\"ver\":\"%s\",\"deviceSn\":\"%s\",\"token\":\"%s\",\"key\":%d,\"sessionid\":\"%s\"}",
                   info.plugin_version, info.dev_sn, request->token, request->key, request->sessionid);
    log_info("Sending authentication: %s", text);
    SendPart part = {text, strlen(text) + 1};
    return conn_send(nm, SEND_STREAM, &part, 1);
}

static void call_off_begin(TunnelLock *lock, CallOff *before)
{
    *before = wait_call_off_set({&lock->waiting, 0, before});
}

// Announces the command, then waits. -1, without the lock, when that wait was cut short.
static int command_lock(TunnelLock *lock, CallOff *before)
{
    lock->waiting++;
    WaitResult taken = wait_lock(&lock->mutex);
    lock->waiting--;
    if (taken != WAIT_READY)
        return -1;
    call_off_begin(lock, before);
    return 0;
}

int tunnel_try_lock(TunnelLock *lock, CallOff *before)
{
    if (lock->waiting != 0 || !wait_try_lock(&lock->mutex))
        return -1;
    call_off_begin(lock, before);
    return 0;
}

void tunnel_unlock(TunnelLock *lock, const CallOff *before)
{
    wait_call_off_set(*before);
    wait_unlock(&lock->mutex);
}

int tunnel_command_handle(const TunnelCommands *tunnel, const char *payload)
{
    TunnelRequest request;
    CallOff before;
    if (request_parse(payload, tunnel->invalid_line, &request) != 0 || command_lock(tunnel->lock, &before) != 0)
        return -1;
    int result = 0;
    if (strcmp(request.action, "start") == 0) {
        result = tunnel->start_locked(&request);
    } else {
        log_info("%s", tunnel->stopped_line);
        tunnel->stop_locked();
    }
    tunnel_unlock(tunnel->lock, &before);
    return result;
}

static void facts_get(TunnelKind kind, TunnelFacts *facts)
{
    pthread_mutex_lock(&s_facts_mutex);
    *facts = s_facts[kind];
    pthread_mutex_unlock(&s_facts_mutex);
}

void remote_web_facts_get(TunnelFacts *facts)
{
    facts_get(TUNNEL_WEB, facts);
}

void remote_telnet_facts_get(TunnelFacts *facts)
{
    facts_get(TUNNEL_TELNET, facts);
}

void tunnel_facts_open(TunnelKind kind)
{
    pthread_mutex_lock(&s_facts_mutex);
    s_facts[kind] = {true, wait_now_ms(), 0, 0, 0};
    pthread_mutex_unlock(&s_facts_mutex);
}

void tunnel_facts_add(TunnelKind kind, uint64_t from_nm, uint64_t to_nm, uint32_t ids)
{
    pthread_mutex_lock(&s_facts_mutex);
    TunnelFacts *facts = &s_facts[kind];
    if (facts->is_open) {
        facts->from_nm += from_nm;
        facts->to_nm += to_nm;
        facts->ids += ids;
    }
    pthread_mutex_unlock(&s_facts_mutex);
}

void tunnel_facts_close(TunnelKind kind)
{
    pthread_mutex_lock(&s_facts_mutex);
    s_facts[kind].is_open = false;
    pthread_mutex_unlock(&s_facts_mutex);
}
