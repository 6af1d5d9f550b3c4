#include "transport/http_client.h"
#include "transport/http_client_internal.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_send.h"
#include "transport/connect.h"
#include "transport/resolve.h"
#include "transport/tls.h"
#include "transport/tls_verify.h"

constexpr int REQUEST_TIMEOUT_MS = 5000;
constexpr size_t HOST_NAME_SIZE = 256; // longer names do not resolve

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

SocketConn http_address_connect(const char *address, const char *port, const char *local_ip)
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
        conn = http_address_connect(address, port, info.local_ip);
    } else if (address[0] == '\0') {
        log_error("gethostbyname() failed: %s", address); // resolve_host says nothing about an empty name
    }
    if (conn.socket_fd < 1)
        log_error("http_tcpclient_create failed!");
    return conn;
}

// Result and *json as http_parse_response.
static int json_extract(const char *body, char **json)
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
    return json_extract(body, json);
}

// 0 when the answer can be read, else -1: logged, unless the wait was cut short.
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
    return result == WAIT_READY ? 0 : -1;
}

int http_exchange(const SocketConn *conn, const char *request, size_t len, int timeout_ms, char *rsp, size_t rsp_cap,
                  int *received)
{
    SendPart part = {request, len};
    (void)conn_send(conn, SEND_MESSAGE, &part, 1); // a failed send shows as a missing answer
    if (answer_wait(conn, timeout_ms) != 0)
        return -1;
    memset(rsp, 0, rsp_cap);
    *received = conn_recv(conn, rsp, rsp_cap - 1);
    return 0;
}

int http_answer_take(char *rsp, size_t rsp_cap)
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

struct Request {
    const char *host, *port, *path, *method;
    const char *certificate_host; // whose certificate is expected
    const char (*headers)[HTTP_HEADER_SLOT_SIZE];
    int header_count;
    const char *body;
};

// Gives a fresh connection its TLS session. 0, or -1 (logged) when nothing may be sent.
static int private_session_begin(const PluginInfo *info, const Request *request, SocketConn *conn)
{
    if (!nm_method_is_https(info->nm_method))
        return tls_plain_is_refused(request->certificate_host) ? -1 : 0;
    conn->ssl = tls_init(conn->socket_fd, request->certificate_host);
    return conn->ssl ? 0 : -1;
}

// The exchange on a fresh connection, which gets its TLS session first. Result and *received as http_exchange.
static int private_exchange(const PluginInfo *info, const Request *request, SocketConn *conn, const char *text,
                            size_t len, char *rsp, size_t rsp_cap, int *received)
{
    if (private_session_begin(info, request, conn) != 0)
        return -1;
    log_info("Sending HTTP request over IP: %s\n%s\n", info->local_ip, text);
    return http_exchange(conn, text, len, REQUEST_TIMEOUT_MS, rsp, rsp_cap, received);
}

static bool is_request_valid(const Request *request)
{
    return request->host && request->port && request->path && request->method &&
           (strcmp(request->method, "GET") == 0 || strcmp(request->method, "POST") == 0) &&
           (request->headers || request->header_count == 0);
}

// http_request by settings that the caller read together with host and port: a newer method may belong to another port.
static int request_run(const PluginInfo *info, const Request *request, char *rsp, size_t rsp_cap)
{
    if (!is_request_valid(request) || !rsp || rsp_cap == 0) {
        log_error("Invalid parameters!");
        return -1;
    }
    SocketConn conn = http_tcpclient_create(request->host, request->port);
    if (conn.socket_fd < 1)
        return -1;
    size_t len;
    int received = 0;
    char *text = http_build_request(request->method, request->path, request->host, request->port, request->headers,
                                    request->header_count, request->body, &len);
    int result = text ? private_exchange(info, request, &conn, text, len, rsp, rsp_cap, &received) : -1;
    free(text);
    socket_close_private(&conn);
    if (result != 0)
        return -1;
    if (received < 1) {
        log_warn("Receive response message len: %d", received);
        return -1;
    }
    return http_answer_take(rsp, rsp_cap);
}

int http_request(const char *host, const char *port, const char *path, const char *method,
                 const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, char *rsp,
                 size_t rsp_cap)
{
    PluginInfo info;
    plugin_info_get(&info);
    Request request = {host, port, path, method, host, headers, header_count, body};
    return request_run(&info, &request, rsp, rsp_cap);
}

int http_post_private(const PluginInfo *nm, const char *path, const char (*headers)[HTTP_HEADER_SLOT_SIZE],
                      int header_count, const char *body, char *rsp, size_t rsp_cap)
{
    Request request = {nm->nm_ip, nm->nm_port, path, "POST", nm_host_of(nm), headers, header_count, body};
    return request_run(nm, &request, rsp, rsp_cap);
}
