#include "nm/heartbeat.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <strings.h>

#include "nm/activation.h"
#include "nm/nm_session.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "runtime/work_thread.h"
#include "transport/conn_registry.h"
#include "transport/connect.h"
#include "transport/field_extract.h"
#include "transport/nm_wait.h"

constexpr size_t UDP_ANSWER_SIZE = 128;
constexpr size_t HEARTBEAT_BODY_SIZE = 128;
constexpr int UDP_ANSWER_WAIT_MS = 1000;
constexpr int NONRESPONSE_LIMIT = 5; // misses in a row, on either channel

static std::atomic<int32_t> s_http_mode;             // 1: heartbeats over HTTP only, until the next bring-up pass
static std::atomic<int32_t> s_udp_nonresponse_count; // in a row
static std::atomic<int32_t> s_http_nonresponse_count;

// One heartbeat exchange at a time: overlapping ones would read each other's answers and count twice.
static std::atomic<bool> s_exchange_running;
static thread_local bool t_owns_exchange;

static pthread_mutex_t s_answered_mutex = PTHREAD_MUTEX_INITIALIZER; // short
static int64_t s_answered_ms;                                        // under it

enum HeartbeatAnswer { ANSWER_OTHER, ANSWER_ACTIVE, ANSWER_ACK, ANSWER_REC };

void heartbeat_reset(void)
{
    s_http_mode = 0;
    s_udp_nonresponse_count = 0;
    s_http_nonresponse_count = 0;
}

static void answered_note(void)
{
    pthread_mutex_lock(&s_answered_mutex);
    s_answered_ms = wait_now_ms();
    pthread_mutex_unlock(&s_answered_mutex);
}

void heartbeat_facts_get(HeartbeatFacts *facts)
{
    facts->is_over_http = s_http_mode != 0;
    facts->misses = (uint32_t)(s_http_mode ? s_http_nonresponse_count : s_udp_nonresponse_count);
    pthread_mutex_lock(&s_answered_mutex);
    facts->answered_ms = s_answered_ms;
    pthread_mutex_unlock(&s_answered_mutex);
}

static HeartbeatAnswer answer_word(const char *word)
{
    if (strcasecmp(word, "ACTIVE") == 0)
        return ANSWER_ACTIVE;
    if (strcasecmp(word, "ack") == 0)
        return ANSWER_ACK;
    return strcasecmp(word, "rec") == 0 ? ANSWER_REC : ANSWER_OTHER;
}

static bool exchange_begin(void)
{
    t_owns_exchange = !s_exchange_running.exchange(true);
    return t_owns_exchange;
}

static void exchange_end(void)
{
    if (t_owns_exchange)
        s_exchange_running = false;
    t_owns_exchange = false;
}

// NM has a command. The exchange is over before the command runs, which may take long: the heartbeats go on.
static void handshake_run(void)
{
    exchange_end();
    handshake_send();
}

// Restarts the bring-up from a beat. Other beats are called off by it; this one goes on to its end.
static void restart(void)
{
    CallOff own = wait_call_off_set({nullptr, 0});
    restart_device_init();
    if (own.counter == &g_restart_count)
        own.value = g_restart_count;
    wait_call_off_set(own);
}

static void restart_asked_by_nm(void)
{
    log_warn("Re-initialize device...");
    restart();
}

// NM gave no answer to a heartbeat. The count is not reset, so every further failure asks again.
static void http_miss_count(void)
{
    if (s_http_nonresponse_count.fetch_add(1) + 1 < NONRESPONSE_LIMIT)
        return;
    log_warn("The time of nonresponse for http trigger has reached the upper limit! Re-initialize device...");
    restart();
}

// The word in NM's HTTP answer.
static HeartbeatAnswer http_answer_read(const char *answer)
{
    cJSON *root = json_parse_logged(answer);
    const char *word = cJSON_GetStringValue(cJSON_GetObjectItem(root, "result"));
    HeartbeatAnswer result = word ? answer_word(word) : ANSWER_OTHER;
    cJSON_Delete(root);
    return result;
}

int heartbeat_answered(const char *answer, HeartbeatAfter *after)
{
    if (!answer) {
        http_miss_count();
        return -1;
    }
    answered_note();
    s_http_nonresponse_count = 0;
    HeartbeatAnswer word = http_answer_read(answer);
    if (word == ANSWER_REC)
        restart_asked_by_nm();
    if (word == ANSWER_ACK)
        *after = handshake_run; // its commands may post again: not under the lock
    return word == ANSWER_OTHER ? -1 : 0;
}

// Sends the body and waits for NM's datagram on a held UDP connection. Answers that come too late stay in the socket:
// an "ack" among them is a command, read at the next beat.
static HeartbeatAnswer udp_exchange(const SocketConn *conn, const char *body, size_t len)
{
    log_debug("Post udp message to NMS server: %s", body);
    (void)udp_sendto(conn, body, len);
    if (!conn_readable(conn, UDP_ANSWER_WAIT_MS) || wait_is_cut())
        return ANSWER_OTHER;
    char answer[UDP_ANSWER_SIZE] = {};
    int received = conn_recv(conn, answer, sizeof(answer) - 1);
    if (received < 0) {
        log_warn("udp_recv error, errno: %d.", errno);
        return ANSWER_OTHER;
    }
    log_debug("post_message_to_nm result, len: %d, buf: %s", received, answer);
    return answer_word(answer);
}

// 0 when NM answered over UDP and was served, or when called off; -1 when the message has to go over HTTP.
static int udp_post(const char *body, size_t len)
{
    SocketConn conn;
    if (s_http_mode || !conn_hold(NM_UDP_DETECTION, &conn))
        return -1;
    HeartbeatAnswer answer = udp_exchange(&conn, body, len);
    conn_drop(&conn);
    if (wait_is_cut())
        return 0;
    if (answer == ANSWER_OTHER)
        return -1;
    answered_note();
    if (answer == ANSWER_REC) {
        restart_asked_by_nm();
        return 0;
    }
    s_udp_nonresponse_count = 0;
    s_http_nonresponse_count = 0;
    if (answer == ANSWER_ACK)
        handshake_run();
    return 0;
}

// A beat without a UDP answer, whatever came of it over HTTP.
static void udp_miss_count(void)
{
    if (s_udp_nonresponse_count.fetch_add(1) + 1 < NONRESPONSE_LIMIT)
        return;
    log_info("The time of nonresponse for udp trigger has reached the upper limit! Change to http mode.");
    s_http_mode = 1;
    (void)conn_remove_if_connected(NM_UDP_DETECTION, 1);
}

// Over UDP, then over HTTP unless UDP was answered.
static void post_message_to_nm(uint32_t type, const char *body, size_t len)
{
    if (!body || len == 0 || udp_post(body, len) == 0)
        return;
    (void)tx_nms_message(type, body, len);
    if (!s_http_mode && !wait_is_cut())
        udp_miss_count();
}

// Makes the UDP socket of this bring-up. 0, or -1 (logged) after turning to HTTP; -1 also when called off meanwhile.
static int udp_open(const Endpoint *nm)
{
    SocketConn conn = udp_connect(nm->remote_ip, nm->remote_port, nm->local_ip, nm->local_port);
    if (wait_is_cut()) {
        socket_close_private(&conn);
        return -1;
    }
    if (conn.socket_fd < 1) {
        log_warn("Create connection [remote (%s:%s), local (%s:%s)] failed!", nm->remote_ip, nm->remote_port,
                 nm->local_ip, nm->local_port);
        s_http_mode = 1;
        return -1;
    }
    (void)conn_add(NM_UDP_DETECTION, conn, 1);
    if (!wait_is_cut())
        return 0;
    (void)conn_remove_if_connected(NM_UDP_DETECTION, 1); // a restart in between did not see it
    return -1;
}

static void heartbeat(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    Endpoint nm = info.udp_detection;
    (void)text_set(nm.local_ip, info.local_ip);
    (void)text_set(nm.local_port, "0"); // any
    if (!s_http_mode && !conn_is_connected(NM_UDP_DETECTION) && udp_open(&nm) != 0)
        return;
    char body[HEARTBEAT_BODY_SIZE]; // a long serial number goes out truncated
    (void)text_fmt(body, "{\n\t\"ver\":\"%s\",\n\t\"deviceSn\":\"%s\"\n}", info.protocol_version, info.dev_sn);
    log_debug("Sending UDP detection... [remote (%s:%s), local (%s:%s)]", nm.remote_ip, nm.remote_port, nm.local_ip,
              nm.local_port);
    post_message_to_nm(REPORT_HEARTBEAT, body, strlen(body));
}

void udp_handler(PluginTimer *)
{
    CallOff before = nm_wait_begin();
    work_thread_set_name("udp_handler");
    if (!conn_check(DEV_TCP)) {
        log_warn("Device TCP connection lost! Re-initialize device...");
        if (!wait_is_cut())
            restart_device_init();
    } else if (g_init_done && exchange_begin()) {
        heartbeat();
        exchange_end();
    }
    wait_call_off_set(before);
}

int udp_detection_interval_handle(uintptr_t, const char *, const char *payload, uint32_t)
{
    cJSON *root = json_parse_logged(payload);
    if (!root)
        return -1;
    int32_t period_s = 0;
    if (json_get_int(cJSON_GetObjectItem(root, "param"), "period", &period_s) == 0)
        udp_detection_period_set(period_s);
    cJSON_Delete(root);
    return 0;
}
