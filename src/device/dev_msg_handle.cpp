#include "device/dev_msg_handle.h"
#include "device/dev_msg_handle_internal.h"

#include <atomic>
#include <cjson/cJSON.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include "device/dev_msg_send.h"
#include "device/dma_status.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/field_extract.h"
#include "transport/nm_post.h"
#include "transport/nm_wait.h"

constexpr size_t FIELD_SIZE = 512;       // "type", "sessionid", "error"
constexpr size_t NM_ANSWER_SIZE = 10240; // fixed by nm_send_device_response
constexpr size_t HISTORY_ANSWER_SIZE = 512;
constexpr int HISTORY_ATTEMPTS = 3;
constexpr int HISTORY_PAUSE_MS = 10;
constexpr int NM_STATUS_OK = 200;
constexpr int PAYLOAD_LEVELS_MAX = 64;
constexpr uint32_t POST_LIMIT_MS = 8000;      // connect and answer take 7 s at most
constexpr uint32_t LARGE_MESSAGE = 16 * 1024; // bytes; the tree of a smaller one leaves little behind

// A message without its tree, which may be forty times its size: small blocks taken while it lives would pin it on the
// heap, and NM may take its time.
struct DevMsg {
    char *text; // in the message area, may be rewritten
    uint32_t area_size;
    char *payload; // "payload", printed; only for rows that want it, null when the message has none
    char type[FIELD_SIZE];
    char sessionid[FIELD_SIZE];
    int32_t msg_id;         // -1: none
    SocketConn link;        // held: the device link when the message was taken
    uint32_t restart_count; // g_restart_count at that time
};

// What to do for a type; path_tail follows "/dev-api/<serial number>/".
struct DevMsgRow {
    const char *type;
    void (*action)(DevMsg *msg, const char *path_tail);
    const char *path_tail;
    const char *ack; // null: no ack for this type
    bool wants_payload;
};

static DevMsgCalls s_calls; // set at start-up, before any message

// When the running post to NM began: milliseconds on the monotonic clock, wraps; 0: none runs.
static std::atomic<uint32_t> s_post_begin_ms{0};

void dev_msg_calls_set(const DevMsgCalls *calls)
{
    s_calls = *calls;
}

static uint32_t post_clock_ms(void)
{
    return (uint32_t)wait_now_ms() | 1;
}

bool dev_msg_is_stuck(void)
{
    uint32_t begin_ms = s_post_begin_ms;
    return begin_ms != 0 && post_clock_ms() - begin_ms > POST_LIMIT_MS;
}

static void payload_free(DevMsg *msg)
{
    cJSON_free(msg->payload);
    msg->payload = nullptr;
}

// Posts the text: 0 when NM answered, else -1 (logged). A restart of the bring-up ends the wait for NM, which has no
// end of its own while a TLS handshake hangs. Only that wait: a restart leaves the device link alone, and what goes to
// the device is sent whole.
static int result_send(const DevMsg *msg, const char *path, char *answer, int *answer_len)
{
    CallOff before = wait_call_off_set({&g_restart_count, msg->restart_count});
    s_post_begin_ms = post_clock_ms();
    bool has_answer = nm_send_device_response(path, msg->text, answer, NM_ANSWER_SIZE, answer_len);
    s_post_begin_ms = 0;
    wait_call_off_set(before);
    return has_answer ? 0 : -1;
}

// NM did not answer. When a restart was the reason, which may have come with a new device link, only the link that
// waits for this ack gets it. A stop says nothing about NM: silence.
static void result_failed(const DevMsg *msg)
{
    if (stop_requested())
        return;
    log_warn("Posting result to NM failed!");
    if (g_restart_count == msg->restart_count || conn_is_current(DEV_TCP, &msg->link))
        (void)dev_msg_ack(msg->sessionid, msg->msg_id, msg->type, nullptr, 0);
}

static void result_post(DevMsg *msg, const char *path_tail)
{
    char path[NM_URI_SIZE];
    nm_uri_build(path, path_tail);
    char *answer = (char *)calloc(1, NM_ANSWER_SIZE);
    int answer_len = 0;
    if (answer && result_send(msg, path, answer, &answer_len) == 0) {
        log_debug("Receive rsp from NM, rsp: %s", answer);
        (void)dev_msg_ack(msg->sessionid, msg->msg_id, msg->type, answer, answer_len);
    } else {
        result_failed(msg);
    }
    free(answer);
}

static void alarm_post(DevMsg *msg, const char *path_tail)
{
    if (!msg->payload)
        return;
    (void)text_format(msg->text, msg->area_size, "[%s]", msg->payload);
    payload_free(msg);
    result_post(msg, path_tail);
}

enum HistoryAttempt {
    HISTORY_ANSWERED,
    HISTORY_UNANSWERED,
    HISTORY_CUT, // the wait for the lock was cut short
};

static HistoryAttempt history_attempt(const char *path, const char *body)
{
    char answer[HISTORY_ANSWER_SIZE] = {};
    s_post_begin_ms = post_clock_ms();
    if (wait_lock(&g_nm_post_mutex) != WAIT_READY)
        return HISTORY_CUT;
    int len = http_post_nm(path, body, answer, sizeof(answer));
    if (len >= 0)
        log_debug("Post http message to nm result, len: %d, rsp: %s", len, answer);
    wait_unlock(&g_nm_post_mutex);
    return len >= 0 ? HISTORY_ANSWERED : HISTORY_UNANSWERED;
}

// A restart ends it, as it does a result's post.
static void history_post(DevMsg *msg, const char *path_tail)
{
    char path[NM_URI_SIZE];
    nm_uri_build(path, path_tail);
    CallOff before = wait_call_off_set({&g_restart_count, msg->restart_count});
    for (int attempt = 1; msg->payload && msg->payload[0] != '\0' && attempt <= HISTORY_ATTEMPTS; attempt++) {
        if (history_attempt(path, msg->payload) != HISTORY_UNANSWERED)
            break;
        if (attempt < HISTORY_ATTEMPTS && wait_sleep_ms(HISTORY_PAUSE_MS) == WAIT_CUT)
            break;
    }
    s_post_begin_ms = 0;
    wait_call_off_set(before);
}

static void pong_send(DevMsg *, const char *)
{
    static const char k_pong[] = "{\n\t\"type\":\"pong\"\n}\n";
    (void)dev_frame_send(k_pong, sizeof(k_pong) - 1);
    log_info("Sending device PONG: %s.", k_pong);
}

static void online_status_answer(DevMsg *, const char *)
{
    dma_status_send("online-status-ack");
}

static void service_report_request(DevMsg *, const char *)
{
    s_calls.service_report_wanted();
}

static void init_cfg_reload(DevMsg *, const char *)
{
    s_calls.init_cfg_changed();
}

static const DevMsgRow k_dev_msgs[] = {
    {"cfg-result", result_post, "cfgResult", "cfg-ack", false},
    {"upgrade-result", result_post, "upgradeResult", "upgrade-ack", false},
    {"backup-result", result_post, "backupResult", "backup-ack", false},
    {"alarm-info", alarm_post, "alarm", "alarm-ack", true},
    {"call-history", history_post, "callhistory", nullptr, true},
    {"ping", pong_send, nullptr, nullptr, false},
    {"port-status", result_post, "ports", nullptr, false},
    {"online-status", online_status_answer, nullptr, nullptr, false},
    {"service-status", service_report_request, nullptr, nullptr, false},
    {"init-cfg-changed", init_cfg_reload, nullptr, nullptr, false},
};

static const DevMsgRow *row_find(const char *type)
{
    for (const DevMsgRow &row : k_dev_msgs) {
        if (strcmp(row.type, type) == 0)
            return &row;
    }
    return nullptr;
}

static bool is_nested_deeper(const cJSON *item, int levels)
{
    if (!cJSON_IsArray(item) && !cJSON_IsObject(item))
        return false;
    if (levels == 0)
        return true;
    const cJSON *child;
    cJSON_ArrayForEach(child, item)
    {
        if (is_nested_deeper(child, levels - 1))
            return true;
    }
    return false;
}

// Prints the payload, absent: null. 0, or -1 (logged) when it must not be printed: each of its lines would begin with a
// tab per level.
static int payload_print(const cJSON *root, DevMsg *msg)
{
    const cJSON *payload = cJSON_GetObjectItem(root, "payload");
    if (is_nested_deeper(payload, PAYLOAD_LEVELS_MAX)) {
        log_error("Payload of '%s' is nested deeper than %d!", msg->type, PAYLOAD_LEVELS_MAX);
        return -1;
    }
    msg->payload = cJSON_Print(payload);
    return 0;
}

// Takes out of the message what its handling wants. Returns its row; null (logged) when there is nothing to handle.
static const DevMsgRow *message_read(DevMsg *msg)
{
    cJSON *root = json_parse_logged(msg->text);
    if (!root)
        return nullptr;
    (void)json_get_string(root, "type", msg->type, sizeof(msg->type));
    (void)json_get_string(root, "sessionid", msg->sessionid, sizeof(msg->sessionid));
    (void)json_get_int(root, "msgId", &msg->msg_id);
    const DevMsgRow *row = row_find(msg->type);
    if (!row)
        log_warn("Unknown notify type: %s!", msg->type);
    bool is_refused = row && row->wants_payload && payload_print(root, msg) != 0;
    cJSON_Delete(root);
    if (is_refused && row->ack)
        (void)dev_msg_ack(msg->sessionid, msg->msg_id, msg->type, nullptr, 0);
    return is_refused ? nullptr : row;
}

// A freed block goes back to the system by itself only from the heap's top, and the request of a large message is taken
// from the room that its tree has left.
static void heap_trim(uint32_t message_len)
{
    if (message_len >= LARGE_MESSAGE)
        (void)malloc_trim(0);
}

void dev_msg_dispatch(char *text, uint32_t len, uint32_t area_size)
{
    log_info("Receive device message, content_len: %u, content: %s", len, text);
    DevMsg msg = {};
    msg.text = text;
    msg.area_size = area_size;
    msg.msg_id = -1;
    msg.restart_count = g_restart_count;
    (void)conn_hold(DEV_TCP, &msg.link);
    const DevMsgRow *row = message_read(&msg);
    heap_trim(len);
    if (row)
        row->action(&msg, row->path_tail);
    payload_free(&msg);
    conn_drop(&msg.link);
    heap_trim(len);
}

// What the ack says.
struct AckVerdict {
    const char *result; // JSON literal
    char sessionid[FIELD_SIZE];
    char cause[FIELD_SIZE];
};

// Takes NM's judgement out of its answer. 0, or -1 (logged) when the answer is not JSON.
static int verdict_read(const char *type, const char *response, AckVerdict *verdict)
{
    cJSON *root = json_parse_logged(response);
    if (!root)
        return -1;
    int32_t status = -1;
    (void)json_get_int(root, "status", &status);
    if (status == NM_STATUS_OK) {
        verdict->result = "true";
        log_info("Receive '%s' from NM, result: %s.", type, verdict->result);
        char scratch[FIELD_SIZE]; // the reader empties its target, and the device's own id stands when NM has none
        if (json_get_string(cJSON_GetObjectItem(root, "result"), "sessionid", scratch, sizeof(scratch)) == 0)
            (void)text_set(verdict->sessionid, scratch);
    } else {
        log_warn("Receive '%s' from NM, result: %s!", type, verdict->result);
        (void)json_get_string(root, "error", verdict->cause, sizeof(verdict->cause));
    }
    cJSON_Delete(root);
    return 0;
}

int dev_msg_ack(const char *sessionid, int32_t msg_id, const char *type, const char *response, int32_t response_len)
{
    if (!type) {
        log_error("type is NULL!");
        return -1;
    }
    const DevMsgRow *row = row_find(type);
    if (!row || !row->ack) {
        log_warn("Unknown type: %s", type);
        return -1;
    }
    AckVerdict verdict = {};
    verdict.result = "false";
    (void)text_set(verdict.sessionid, sessionid);
    if (response && response_len > 0 && verdict_read(type, response, &verdict) != 0)
        return -1;

    // The device expects "ver" in both layouts and always finds it empty; nothing is escaped.
    char text[DEV_TEXT_SIZE];
    if (strcmp(row->ack, "alarm-ack") == 0)
        (void)text_fmt(text, "{\t\"type\":\"%s\",\t\"msgId\":%d,\t\"result\":%s,\t\"ver\":\"%s\"}", row->ack, msg_id,
                       verdict.result, "");
    else
        (void)text_fmt(text,
                       "{\t\"sessionid\":\"%s\",\t\"type\":\"%s\",\t\"result\":%s,\t\"cause\":\"%s\",\t\"ver\":\"%s\"}",
                       verdict.sessionid, row->ack, verdict.result, verdict.cause, "");
    dev_text_send(row->ack, text);
    return 0;
}
