#include "remote/tunnel.h"

#include <cjson/cJSON.h>
#include <netinet/tcp.h>
#include <string.h>
#include <time.h>

#include "remote/remote_audit.h"
#include "remote/remote_policy.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/text.h"
#include "transport/conn_send.h"
#include "transport/connect.h"
#include "transport/field_extract.h"
#include "transport/liveness.h"
#include "transport/resolve.h"

constexpr int WEB_SERVER_BUFFER_SIZE = 32768; // bytes, each direction; the other types take the default
constexpr uint32_t PORT_LIMIT = 65536;
constexpr size_t AUTH_TEXT_SIZE = 4096; // four texts of 511 characters at most, a number and the frame

constexpr int MS_PER_S = 1000;

// One session, the present or the last one of its kind.
struct Session {
    TunnelFacts facts;
    int64_t start_s;       // UTC
    int64_t moved_ms;      // monotonic, of the last bytes
    int32_t idle_s, max_s; // 0: none
    char host[512];
    char address[IP_TEXT_SIZE];
    char port[PORT_TEXT_SIZE];
    char session_id[512];
};

static pthread_mutex_t s_session_mutex = PTHREAD_MUTEX_INITIALIZER; // short
static Session s_sessions[TUNNEL_TELNET + 1];                       // under s_session_mutex, by kind

static const char *const k_kind_names[] = {"web", "telnet"}; // by TunnelKind
// By TunnelEnd.
static const char *const k_end_names[] = {"", "nm", "device", "idle", "max", "stop", "restart", "error"};
static_assert(sizeof(k_end_names) / sizeof(k_end_names[0]) == TUNNEL_END_ERROR + 1, "one name per end");

// 0 when registered, or when a TLS handshake was cut short; -1 (logged) without a connection. host: the peer's name in
// its certificate. refusal: null, or nothing is connected.
static int half_tunnel_open(ConnectionType type, const TunnelPeer *peer, ConnSecurity security, const char *host,
                            const char *refusal)
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
    SocketConn conn = {};
    if (!refusal)
        conn = tcp_connect(peer->remote_ip, peer->remote_port, local_ip, local_port, buffer_size, buffer_size);
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
    return half_tunnel_open(type, peer, conn_security_wanted(type), peer->remote_ip, nullptr);
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
    return half_tunnel_open(type, &peer, request->security, request->name, request->refusal);
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

static bool name_has(const char *name, const struct in_addr *address)
{
    return !wait_is_cut() && resolve_host_has(name, address);
}

static void refusal_audit(const char *path, TunnelKind kind, const TunnelRequest *request)
{
    AuditRefusal refusal = {{k_kind_names[kind], request->name, request->host, request->port, request->sessionid},
                            (int64_t)time(nullptr),
                            request->refusal};
    char line[AUDIT_LINE_SIZE];
    remote_audit_append(path, line, remote_audit_refusal_format(&refusal, line));
}

// Sets the request's refusal. Under no lock: names may be looked up.
static void request_judge(TunnelKind kind, TunnelRequest *request)
{
    Options options;
    options_get(&options);
    const RemoteAccessOptions *policy = &options.remote_access;
    int32_t service = kind == TUNNEL_WEB ? policy->web : policy->telnet;
    request->refusal = remote_policy_judge(policy, service, request->name, request->host, name_has);
    if (!request->refusal)
        return;
    log_warn("Remote %s to %s (%s:%s) is refused: %s!", k_kind_names[kind], request->name, request->host, request->port,
             request->refusal);
    refusal_audit(policy->audit_file, kind, request);
}

int tunnel_command_handle(const TunnelCommands *tunnel, const char *payload)
{
    TunnelRequest request;
    CallOff before;
    if (request_parse(payload, tunnel->invalid_line, &request) != 0)
        return -1;
    bool is_start = strcmp(request.action, "start") == 0;
    if (is_start)
        request_judge(tunnel->kind, &request);
    if (command_lock(tunnel->lock, &before) != 0)
        return -1;
    int result = 0;
    if (is_start) {
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
    pthread_mutex_lock(&s_session_mutex);
    *facts = s_sessions[kind].facts;
    pthread_mutex_unlock(&s_session_mutex);
}

void remote_web_facts_get(TunnelFacts *facts)
{
    facts_get(TUNNEL_WEB, facts);
}

void remote_telnet_facts_get(TunnelFacts *facts)
{
    facts_get(TUNNEL_TELNET, facts);
}

void tunnel_session_open(TunnelKind kind, const TunnelRequest *request)
{
    Options options;
    options_get(&options);
    Session next = {};
    int64_t now_ms = wait_now_ms();
    next.facts = {true, now_ms, 0, 0, 0};
    next.start_s = (int64_t)time(nullptr);
    next.moved_ms = now_ms;
    next.idle_s = options.remote_access.idle_s;
    next.max_s = options.remote_access.max_s;
    (void)text_set(next.host, request->name);
    (void)text_set(next.address, request->host);
    (void)text_set(next.port, request->port);
    (void)text_set(next.session_id, request->sessionid);
    pthread_mutex_lock(&s_session_mutex);
    s_sessions[kind] = next;
    pthread_mutex_unlock(&s_session_mutex);
}

void tunnel_session_count(TunnelKind kind, uint64_t from_nm, uint64_t to_nm, uint32_t ids)
{
    pthread_mutex_lock(&s_session_mutex);
    Session *session = &s_sessions[kind];
    if (session->facts.is_open) {
        session->facts.from_nm += from_nm;
        session->facts.to_nm += to_nm;
        session->facts.ids += ids;
        if (from_nm + to_nm > 0)
            session->moved_ms = wait_now_ms();
    }
    pthread_mutex_unlock(&s_session_mutex);
}

static void session_audit(TunnelKind kind, const Session *session, TunnelEnd ended_by)
{
    Options options;
    options_get(&options);
    AuditSession audit = {};
    audit.tunnel = {k_kind_names[kind], session->host, session->address, session->port, session->session_id};
    audit.start_s = session->start_s;
    audit.end_s = (int64_t)time(nullptr);
    audit.from_nm = session->facts.from_nm;
    audit.to_nm = session->facts.to_nm;
    audit.has_ids = kind == TUNNEL_WEB;
    audit.ids = session->facts.ids;
    audit.ended_by = k_end_names[ended_by];
    char line[AUDIT_LINE_SIZE];
    remote_audit_append(options.remote_access.audit_file, line, remote_audit_session_format(&audit, line));
}

void tunnel_session_close(TunnelKind kind, TunnelEnd ended_by)
{
    pthread_mutex_lock(&s_session_mutex);
    Session session = s_sessions[kind];
    s_sessions[kind].facts.is_open = false;
    pthread_mutex_unlock(&s_session_mutex);
    if (session.facts.is_open)
        session_audit(kind, &session, ended_by);
}

void tunnel_sessions_stop(void)
{
    tunnel_session_close(TUNNEL_WEB, TUNNEL_END_STOP);
    tunnel_session_close(TUNNEL_TELNET, TUNNEL_END_STOP);
}

// limit_s 0: never.
static bool is_over(int64_t since_ms, int32_t limit_s)
{
    return limit_s > 0 && wait_now_ms() - since_ms >= (int64_t)limit_s * MS_PER_S;
}

TunnelEnd tunnel_session_overdue(TunnelKind kind)
{
    pthread_mutex_lock(&s_session_mutex);
    const Session *session = &s_sessions[kind];
    int32_t idle_s = session->idle_s;
    int32_t max_s = session->max_s;
    bool is_idle = session->facts.is_open && is_over(session->moved_ms, idle_s);
    bool is_old = session->facts.is_open && is_over(session->facts.since_ms, max_s);
    pthread_mutex_unlock(&s_session_mutex);
    if (is_old)
        log_warn("Remote %s has been open for %d s and is ended!", k_kind_names[kind], max_s);
    else if (is_idle)
        log_warn("Remote %s has carried nothing for %d s and is ended!", k_kind_names[kind], idle_s);
    return is_old ? TUNNEL_END_MAX : is_idle ? TUNNEL_END_IDLE : TUNNEL_END_NONE;
}

TunnelEnd tunnel_half_ended_by(const SocketConn *half, TunnelEnd peer)
{
    if (half->socket_fd < 1)
        return peer;
    // The test has shut it down; whether the peer had closed its side before stays visible.
    int state = tcp_state_get(half->socket_fd);
    bool ended_here =
        state == TCP_STATE_TIMEOUT || state == TCP_ESTABLISHED || state == TCP_FIN_WAIT1 || state == TCP_FIN_WAIT2;
    return ended_here ? TUNNEL_END_ERROR : peer;
}
