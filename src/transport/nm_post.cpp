#include "transport/nm_post.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/http_client.h"
#include "transport/nm_sign.h"
#include "transport/tls.h"

constexpr int KEPT_TIMEOUT_MS = 2000;
constexpr size_t REPORT_ANSWER_SIZE = 512;
constexpr size_t DRAIN_MAX = 65536;
constexpr int DRAIN_MAX_MS = 50;

pthread_mutex_t g_nm_post_mutex = PTHREAD_MUTEX_INITIALIZER;

// The NM that the kept connection was opened for. Under g_nm_post_mutex, as http_post_nm itself.
static struct {
    char method[ID_TEXT_SIZE];
    char ip[IP_TEXT_SIZE];
    char port[PORT_TEXT_SIZE];
} s_kept_for;

static HeartbeatAnswered s_heartbeat_answered; // set at start-up, before any report

static const char *const k_report_tails[] = {"heartbeat", "runstatus", "working/services", "callhistory"};
static_assert(sizeof(k_report_tails) / sizeof(k_report_tails[0]) == REPORT_TYPE_COUNT, "one path per report type");

static pthread_mutex_t s_facts_mutex = PTHREAD_MUTEX_INITIALIZER; // short
static PostFacts s_facts;                                         // under it

void nm_post_facts_get(PostFacts *facts)
{
    pthread_mutex_lock(&s_facts_mutex);
    *facts = s_facts;
    pthread_mutex_unlock(&s_facts_mutex);
}

// Counts a post with this result of its request, and returns the result.
static int post_note(int result)
{
    if (result < 0 && wait_is_cut())
        return result;
    pthread_mutex_lock(&s_facts_mutex);
    if (result >= 0) {
        s_facts.sent++;
    } else {
        s_facts.failed++;
        s_facts.failed_ms = wait_now_ms();
        (void)text_set(s_facts.failure, log_last_problem());
    }
    pthread_mutex_unlock(&s_facts_mutex);
    return result;
}

static void report_note(uint32_t type)
{
    pthread_mutex_lock(&s_facts_mutex);
    s_facts.reports[type]++;
    pthread_mutex_unlock(&s_facts_mutex);
}

void nm_post_heartbeat_answered_set(HeartbeatAnswered answered)
{
    s_heartbeat_answered = answered;
}

void nm_uri_format(char *path, size_t cap, const char *dev_sn, const char *tail)
{
    (void)text_format(path, cap, "/dev-api/%s%s%s", dev_sn, tail ? "/" : "", tail ? tail : "");
}

void nm_uri_build(char (&path)[NM_URI_SIZE], const char *tail)
{
    PluginInfo info;
    plugin_info_get(&info);
    nm_uri_format(path, sizeof(path), info.dev_sn, tail);
}

static bool is_address(const char *text)
{
    struct in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

// Connects without a name look-up, which could take half a minute, for the post lock is held. The settings hold
// addresses, unless NM's name did not resolve or "localIp" is none.
static SocketConn nm_connect(const PluginInfo *nm)
{
    SocketConn conn = {};
    if (!is_address(nm->nm_ip))
        log_error("gethostbyname() failed: %s", nm->nm_ip);
    else if (nm->local_ip[0] && !is_address(nm->local_ip))
        log_error("Could not resolve host: %s\n", gai_strerror(EAI_NONAME));
    else
        conn = http_address_connect(nm->nm_ip, nm->nm_port, nm->local_ip);
    if (conn.socket_fd < 1)
        log_error("http_tcpclient_create failed!");
    return conn;
}

static bool is_kept_for(const PluginInfo *nm)
{
    return strcmp(s_kept_for.method, nm->nm_method) == 0 && strcmp(s_kept_for.ip, nm->nm_ip) == 0 &&
           strcmp(s_kept_for.port, nm->nm_port) == 0;
}

// Reads away what is left of earlier answers, so that it is not taken for the next one. 0 when nothing is left; -1 when
// the connection is of no use: ended, in error, with no end of leftovers, or in the middle of a TLS record.
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

// Holds the kept connection when it is alive, clean and leads to this NM: 0. Else it is closed: -1.
static int kept_reuse(const PluginInfo *nm, SocketConn *conn)
{
    if (conn_is_connected(HTTP) && !is_kept_for(nm))
        (void)conn_remove_if_connected(HTTP, 1);
    if (!conn_is_connected(HTTP) || !conn_check(HTTP))
        return -1;
    if (conn_hold(HTTP, conn)) {
        if (kept_drain(conn) == 0)
            return 0;
        conn_remove_if_current(HTTP, conn, 1);
    }
    conn_drop(conn);
    return -1;
}

// Connects, registers and holds. 0, or -1 (logged, unless a wait was cut short).
static int kept_open(const PluginInfo *nm, SocketConn *conn)
{
    SocketConn fresh = nm_connect(nm);
    if (fresh.socket_fd < 1)
        return -1;
    SocketConn bare = {}; // the table shows the kept connection without address and port
    bare.socket_fd = fresh.socket_fd;
    (void)text_set(s_kept_for.method, nm->nm_method);
    (void)text_set(s_kept_for.ip, nm->nm_ip);
    (void)text_set(s_kept_for.port, nm->nm_port);
    (void)conn_add_as(HTTP, bare, nm_method_is_https(nm->nm_method) ? CONN_TLS : CONN_PLAIN, nm_host_of(nm), 1);

    if (conn_hold(HTTP, conn) && !wait_is_cut())
        return 0;
    conn_remove_if_current(HTTP, conn, 0); // a restart that has closed all connections did not see this one
    conn_drop(conn);
    return -1;
}

// Sends on the kept connection and takes the answer; whatever happens, the connection stays registered.
static int kept_exchange(const SocketConn *conn, const char *local_ip, const char *request, size_t len, char *rsp,
                         size_t rsp_cap)
{
    log_debug("Post HTTP nm message over IP: %s\n%s\n", local_ip, request);
    int received;
    if (http_exchange(conn, request, len, KEPT_TIMEOUT_MS, rsp, rsp_cap, &received) != 0)
        return -1;
    if (received < 1) {
        log_warn("Receive response message failed, len: %d", received);
        return -1;
    }
    return http_answer_take(rsp, rsp_cap);
}

static int kept_post(const char *path, const char *body, char *rsp, size_t rsp_cap)
{
    PluginInfo nm;
    plugin_info_get(&nm);
    SocketConn conn = {};
    if (kept_reuse(&nm, &conn) != 0 && (wait_is_cut() || kept_open(&nm, &conn) != 0))
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

int http_post_nm(const char *path, const char *body, char *rsp, size_t rsp_cap)
{
    if (!path || !body || body[0] == '\0' || !rsp || rsp_cap == 0) {
        log_error("Invalid parameters!");
        return -1;
    }
    return post_note(kept_post(path, body, rsp, rsp_cap));
}

int nm_http_post(const char *path, const char *body, char *rsp, size_t rsp_cap)
{
    PluginInfo nm;
    plugin_info_get(&nm);
    char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
    nm_headers_fill(&nm, headers);
    return post_note(http_post_private(&nm, path, headers, NM_HEADER_COUNT, body, rsp, rsp_cap));
}

int nm_send_device_response(const char *path, const char *msg, char *rsp, size_t rsp_cap, int *rsp_len)
{
    PluginInfo nm;
    plugin_info_get(&nm);
    char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
    nm_headers_fill(&nm, headers);
    log_info("Sending device response to NM, uri: %s, header: %s,%s, msg: %s", path, headers[0], headers[1], msg);
    int result = post_note(http_post_private(&nm, path, headers, NM_HEADER_COUNT, msg, rsp, rsp_cap));
    if (result < 0) {
        if (!stop_requested()) // else NM refused nothing
            log_warn("Sending device response to NM failed. response: %s", rsp);
        return 0;
    }
    *rsp_len = result;
    log_info("Receive response from NM, len: %d, content: %s", result, rsp);
    return 1;
}

static int report_post_locked(uint32_t type, const char *path, const char *body, HeartbeatAfter *after)
{
    char rsp[REPORT_ANSWER_SIZE] = {};
    int len = http_post_nm(path, body, rsp, sizeof(rsp));
    if (wait_is_cut())
        return -1; // neither an answer nor a missing one
    if (len >= 0) {
        report_note(type);
        log_debug("Post http message to nm result, len: %d, rsp: %s", len, rsp);
    }
    if (type == REPORT_HEARTBEAT)
        return s_heartbeat_answered(len >= 0 ? rsp : nullptr, after);
    return len >= 0 ? 0 : -1;
}

int tx_nms_message(uint32_t type, const char *body, size_t len)
{
    if (!body || len == 0)
        return -1;
    if (type >= REPORT_TYPE_COUNT) {
        log_warn("Undefined tx nms message type: %d", (int)type);
        return -1;
    }
    char path[NM_URI_SIZE];
    nm_uri_build(path, k_report_tails[type]);
    if (wait_lock(&g_nm_post_mutex) != WAIT_READY)
        return -1;
    HeartbeatAfter after = nullptr;
    int result = report_post_locked(type, path, body, &after);
    wait_unlock(&g_nm_post_mutex);
    if (after)
        after();
    return result;
}
