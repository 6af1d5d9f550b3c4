#include "transport/http_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"
#include "transport/connect.h"
#include "transport/nm_sign.h"
#include "transport/resolve.h"
#include "transport/tls.h"

constexpr int REQUEST_TIMEOUT_MS = 5000;
constexpr int POST_TIMEOUT_MS = 2000;
constexpr size_t HOST_NAME_SIZE = 256; // longer names do not resolve
constexpr size_t DRAIN_MAX = 65536;
constexpr int DRAIN_MAX_MS = 50;

// The NM that the kept connection was opened for. Under g_nm_post_mutex, as http_post_nm itself.
static struct {
    char method[ID_TEXT_SIZE];
    char ip[IP_TEXT_SIZE];
    char port[PORT_TEXT_SIZE];
} s_kept_for;

static const char k_version[] = "HTTP/1.1";

char *http_build_request(const char *method, const char *path, const char *host, const char *port,
                         const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, size_t *len)
{
    constexpr size_t fixed_part = 256; // names, blanks and line ends, generously
    size_t slots = header_count > 0 ? (size_t)header_count * (HTTP_HEADER_SLOT_SIZE + 2) : 0;
    size_t cap = fixed_part + strlen(method) + strlen(path) + strlen(host) + strlen(port) + slots;
    size_t body_len = body ? strlen(body) : 0;
    char *text = (char *)calloc(1, cap + body_len);
    if (!text) {
        log_error("malloc failed!");
        return nullptr;
    }
    (void)text_format(text, cap, "%s %s %s\r\nHOST: %s:%s\r\nAccept:\r\n", method, path, k_version, host, port);
    if (strcmp(method, "POST") == 0)
        (void)text_append(text, cap, "Content-Type: application/json\r\n");
    for (int i = 0; i < header_count; i++)
        (void)text_append(text, cap, "%s\r\n", headers[i]);
    if (body)
        (void)text_append(text, cap, "Content-Length: %zu\r\n", body_len);
    (void)text_append(text, cap, "\r\n");

    size_t head_len = strlen(text);
    if (body_len > 0)
        memcpy(text + head_len, body, body_len + 1); // with its NUL: the head left room
    *len = head_len + body_len;
    return text;
}

// Connects to a dotted address, bound to the agent's own; no address list is kept.
static SocketConn address_connect(const char *address, const char *port, const char *local_ip)
{
    SocketConn conn = tcp_connect(address, port, local_ip[0] ? local_ip : nullptr, nullptr, 0, 0);
    if (conn.remote_addr)
        freeaddrinfo(conn.remote_addr);
    conn.remote_addr = nullptr;
    return conn;
}

SocketConn http_tcpclient_create(const char *host, const char *port)
{
    SocketConn conn = {};
    char address[HOST_NAME_SIZE];
    (void)text_set(address, host);
    if (resolve_host(address, sizeof(address)) == 0) {
        PluginInfo info;
        plugin_info_get(&info);
        conn = address_connect(address, port, info.local_ip);
    } else if (address[0] == '\0') {
        log_error("gethostbyname() failed: %s", address); // resolve_host says nothing about an empty name
    }
    if (conn.socket_fd < 1)
        log_error("http_tcpclient_create failed!");
    return conn;
}

static bool is_address(const char *text)
{
    struct in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

// The same for the NM of the settings, without a look-up: it could take half a minute, and the caller holds the NM post
// lock. The settings hold addresses, unless NM's name did not resolve or "localIp" is none.
static SocketConn nm_connect(const PluginInfo *nm)
{
    SocketConn conn = {};
    if (!is_address(nm->nm_ip))
        log_error("gethostbyname() failed: %s", nm->nm_ip);
    else if (nm->local_ip[0] && !is_address(nm->local_ip))
        log_error("Could not resolve host: %s\n", gai_strerror(EAI_NONAME));
    else
        conn = address_connect(nm->nm_ip, nm->nm_port, nm->local_ip);
    if (conn.socket_fd < 1)
        log_error("http_tcpclient_create failed!");
    return conn;
}

static int json_cut(const char *body, char **json)
{
    const char *start = strchr(body, '{');
    if (!start) {
        log_debug("p_json_start is NULL!");
        return 0;
    }
    const char *end = strrchr(body, '}');
    if (!end) {
        log_warn("p_json_end is NULL!");
        return 0;
    }
    int len = (int)(end - start) + 1;
    log_debug("http json_len: %d", len);
    if (len < 1) {
        log_warn("Invalid json_len!");
        return 0;
    }
    *json = (char *)calloc(1, (size_t)len + 1);
    if (!*json) {
        log_error("malloc failed!");
        return 0;
    }
    memcpy(*json, start, (size_t)len);
    return len;
}

int http_parse_response(const char *text, char **json)
{
    *json = nullptr;
    if (!text) {
        log_error("Invalid parameter!");
        return -1;
    }
    const char *version = strstr(text, k_version);
    if (!version) {
        log_warn("%s not found!", k_version);
        return -1;
    }
    int32_t status = saturate_i32(strtoll(version + strlen(k_version), nullptr, 10));
    if (status != 200) {
        log_warn("Http result: %d", status);
        return -1;
    }
    const char *body = strstr(text, "\r\n\r\n");
    if (!body) {
        log_debug("HTTP message body is NULL.");
        return 0;
    }
    return json_cut(body, json);
}

// 1 when the answer can be read, else 0: logged, but for a cut wait.
static int answer_wait(const SocketConn *conn, int timeout_ms)
{
    WaitResult result;
    if (!conn->ssl)
        result = wait_fd(conn->socket_fd, POLLIN, timeout_ms);
    else if (conn_readable(conn, timeout_ms))
        result = WAIT_READY;
    else
        result = wait_is_cut() ? WAIT_CUT : WAIT_TIMEOUT;

    if (result == WAIT_TIMEOUT)
        log_warn("select timeout!");
    else if (result == WAIT_ERROR)
        log_error("select failed: %s", strerror(errno));
    return result == WAIT_READY;
}

// Replaces the raw answer in rsp by its JSON object; the result of a request.
static int answer_take(char *rsp, size_t rsp_cap)
{
    char *json;
    int result = http_parse_response(rsp, &json);
    if (result < 0)
        log_warn("Http response: %s", rsp);
    memset(rsp, 0, rsp_cap);
    if (!json)
        return result;
    (void)text_copy(rsp, rsp_cap, json);
    free(json);
    return (int)strlen(rsp);
}

static void request_send(const SocketConn *conn, const char *request, size_t len)
{
    SendPart part = {request, len};
    (void)conn_send(conn, SEND_MESSAGE, &part, 1); // a failed send shows as a missing answer
}

// Sends on a connected socket, waits and receives once. Returns what the receive gave, -2 (logged) when none was made.
static int request_exchange(const PluginInfo *info, SocketConn *conn, const char *request, size_t len, char *rsp,
                            size_t rsp_cap)
{
    if (nm_method_is_https(info->nm_method)) {
        conn->ssl = tls_init(conn->socket_fd);
        if (!conn->ssl)
            return -2;
    }
    log_info("Sending HTTP request over IP: %s\n%s\n", info->local_ip, request);
    request_send(conn, request, len);
    if (!answer_wait(conn, REQUEST_TIMEOUT_MS))
        return -2;
    memset(rsp, 0, rsp_cap);
    return conn_recv(conn, rsp, rsp_cap - 1);
}

static int is_request_valid(const char *host, const char *port, const char *path, const char *method)
{
    return host && port && path && method && (strcmp(method, "GET") == 0 || strcmp(method, "POST") == 0);
}

// http_request by settings that the caller read together with host and port: a newer method may belong to another port.
static int request_run(const PluginInfo *info, const char *host, const char *port, const char *path, const char *method,
                       const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, char *rsp,
                       size_t rsp_cap)
{
    if (!is_request_valid(host, port, path, method) || (!headers && header_count != 0) || !rsp || rsp_cap == 0) {
        log_error("Invalid parameters!");
        return -1;
    }
    SocketConn conn = http_tcpclient_create(host, port);
    if (conn.socket_fd < 1)
        return -1;
    size_t len;
    char *request = http_build_request(method, path, host, port, headers, header_count, body, &len);
    int received = request ? request_exchange(info, &conn, request, len, rsp, rsp_cap) : -2;
    free(request);
    socket_close_private(&conn);

    if (received == -2)
        return -1;
    if (received < 1) {
        log_warn("Receive response message len: %d", received);
        return -1;
    }
    return answer_take(rsp, rsp_cap);
}

int http_request(const char *host, const char *port, const char *path, const char *method,
                 const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, char *rsp,
                 size_t rsp_cap)
{
    PluginInfo info;
    plugin_info_get(&info);
    return request_run(&info, host, port, path, method, headers, header_count, body, rsp, rsp_cap);
}

int http_post_private(const PluginInfo *nm, const char *path, const char (*headers)[HTTP_HEADER_SLOT_SIZE],
                      int header_count, const char *body, char *rsp, size_t rsp_cap)
{
    return request_run(nm, nm->nm_ip, nm->nm_port, path, "POST", headers, header_count, body, rsp, rsp_cap);
}

static int is_kept_for(const PluginInfo *nm)
{
    return strcmp(s_kept_for.method, nm->nm_method) == 0 && strcmp(s_kept_for.ip, nm->nm_ip) == 0 &&
           strcmp(s_kept_for.port, nm->nm_port) == 0;
}

// Reads away what is left of earlier answers, so that it is not taken for the next one. Returns 0 when nothing is left;
// -1 when the connection is of no use: ended, in error, with no end of leftovers, or in the middle of a record.
static int kept_drain(const SocketConn *conn)
{
    char scratch[2048];
    int64_t end_ms = wait_now_ms() + DRAIN_MAX_MS;
    for (size_t total = 0; total < DRAIN_MAX && wait_now_ms() <= end_ms;) {
        int got = conn_recv(conn, scratch, sizeof(scratch));
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return !conn->ssl || tls_is_between_records(conn->ssl) ? 0 : -1;
        if (got <= 0)
            return -1;
        total += (size_t)got;
    }
    return -1;
}

// Holds the kept connection when it is alive, clean and leads to this NM. 1 when held, else it is closed.
static int kept_reuse(const PluginInfo *nm, SocketConn *conn)
{
    if (conn_is_connected(HTTP) && !is_kept_for(nm))
        (void)conn_remove_if_connected(HTTP, 1);
    if (!conn_is_connected(HTTP) || !conn_check(HTTP))
        return 0;
    if (conn_hold(HTTP, conn)) {
        if (kept_drain(conn) == 0)
            return 1;
        conn_remove_if_current(HTTP, conn, 1);
    }
    conn_drop(conn);
    return 0;
}

// Connects and registers; 1 when held, else 0.
static int kept_open(const PluginInfo *nm, SocketConn *conn)
{
    SocketConn fresh = nm_connect(nm);
    if (fresh.socket_fd < 1)
        return 0;
    SocketConn bare = {}; // the table shows the kept connection without address and port
    bare.socket_fd = fresh.socket_fd;
    (void)text_set(s_kept_for.method, nm->nm_method);
    (void)text_set(s_kept_for.ip, nm->nm_ip);
    (void)text_set(s_kept_for.port, nm->nm_port);
    conn_add_as(HTTP, bare, nm_method_is_https(nm->nm_method) ? CONN_TLS : CONN_PLAIN, 1);

    if (conn_hold(HTTP, conn) && !wait_is_cut())
        return 1;
    conn_remove_if_current(HTTP, conn, 0); // a restart that has closed all connections did not see this one
    conn_drop(conn);
    return 0;
}

// Sends on the kept connection and takes the answer; whatever happens, the connection stays registered.
static int kept_exchange(const SocketConn *conn, const char *local_ip, const char *request, size_t len, char *rsp,
                         size_t rsp_cap)
{
    log_debug("Post HTTP nm message over IP: %s\n%s\n", local_ip, request);
    request_send(conn, request, len);
    if (!answer_wait(conn, POST_TIMEOUT_MS))
        return -1;
    memset(rsp, 0, rsp_cap);
    int received = conn_recv(conn, rsp, rsp_cap - 1);
    if (received < 1) {
        log_warn("Receive response message failed, len: %d", received);
        return -1;
    }
    return answer_take(rsp, rsp_cap);
}

int http_post_nm(const char *path, const char *body, char *rsp, size_t rsp_cap)
{
    if (!path || !body || body[0] == '\0' || !rsp || rsp_cap == 0) {
        log_error("Invalid parameters!");
        return -1;
    }
    PluginInfo nm;
    plugin_info_get(&nm);
    SocketConn conn = {};
    if (!kept_reuse(&nm, &conn) && (wait_is_cut() || !kept_open(&nm, &conn)))
        return -1;
    size_t len;
    char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
    nm_fill_headers(headers);
    char *request = http_build_request("POST", path, nm.nm_ip, nm.nm_port, headers, NM_HEADER_COUNT, body, &len);
    int result = request ? kept_exchange(&conn, nm.local_ip, request, len, rsp, rsp_cap) : -1;
    free(request);
    conn_drop(&conn);
    return result;
}
