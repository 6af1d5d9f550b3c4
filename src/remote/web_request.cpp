#include "remote/web_request.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "remote/web_upload.h"
#include "runtime/log.h"
#include "runtime/wait.h"

constexpr uint32_t REQUEST_CAP = 16384; // bytes that one record holds
constexpr int RECORD_COUNT = 10;
constexpr int HELD_MAX_MS = 30; // a held byte waits no longer, however busy NM is with other msg_ids

struct WebRequest {
    uint32_t in_use;
    uint32_t destroy; // NM closed the msg_id
    uint8_t msg_id[WEB_ID_SIZE];
    uint32_t len; // held bytes
    uint8_t data[REQUEST_CAP];
};

// Under the tunnel's command lock.
static WebRequest *g_remote_web_temp_buffer; // RECORD_COUNT records
static int64_t s_held_since_ms;              // when the oldest held byte came; 0: the records hold none

int web_request_open(void)
{
    if (!g_remote_web_temp_buffer)
        g_remote_web_temp_buffer = (WebRequest *)malloc(RECORD_COUNT * sizeof(WebRequest));
    if (!g_remote_web_temp_buffer) {
        log_error("g_remote_web_temp_buffer malloc failed!");
        return -1;
    }
    for (int i = 0; i < RECORD_COUNT; i++) {
        g_remote_web_temp_buffer[i].in_use = 0;
        g_remote_web_temp_buffer[i].len = 0;
    }
    s_held_since_ms = 0;
    return 0;
}

static void record_flush(WebRequest *record)
{
    if (record->len > 0) {
        log_debug("handle length:%d, id:%x%x", (int)record->len, record->msg_id[6], record->msg_id[7]);
        web_upload_forward(record->msg_id, record->data, record->len);
        log_debug("handle finished");
        record->len = 0;
    }
    if (record->destroy) {
        log_debug("destroying web id:%x%x", record->msg_id[6], record->msg_id[7]);
        web_upload_destroy(record->msg_id);
        record->destroy = 0;
        record->in_use = 0;
        log_debug("destroyed");
    }
}

static WebRequest *record_find(const uint8_t *msg_id)
{
    for (int i = 0; i < RECORD_COUNT; i++) {
        WebRequest *record = &g_remote_web_temp_buffer[i];
        if (record->in_use && web_is_same_id(record->msg_id, msg_id))
            return record;
    }
    return nullptr;
}

static int record_append(WebRequest *record, const WebHeader *header, const uint8_t *payload)
{
    log_debug("req");
    if (header->length > REQUEST_CAP - record->len) {
        log_debug("too large");
        return 1;
    }
    memcpy(record->data + record->len, payload, header->length);
    record->len += header->length;
    log_debug("buffer %d curr header length:%d", (int)(record - g_remote_web_temp_buffer), (int)record->len);
    return 0;
}

static void record_take(const WebHeader *header, const uint8_t *payload)
{
    log_debug("req");
    log_debug("alloc one");
    for (int i = 0; i < RECORD_COUNT; i++) {
        WebRequest *record = &g_remote_web_temp_buffer[i];
        if (record->in_use)
            continue;
        record->in_use = 1;
        record->destroy = 0;
        memcpy(record->msg_id, header->msg_id, WEB_ID_SIZE);
        memcpy(record->data, payload, header->length);
        record->len = header->length;
        log_debug("copy curr header length:%d", (int)record->len);
        return;
    }
    log_debug("no resource, handle directly");
    web_upload_forward(header->msg_id, payload, header->length);
}

int web_request_handle(const WebHeader *header, const uint8_t *payload)
{
    if (!header) {
        log_error("msg_header is NULL!");
        return -1;
    }
    WebRequest *record = record_find(header->msg_id);
    if (header->type == MSG_TYPE_WEB_DESTROY) {
        log_debug("Received remote web message: MSG_TYPE_WEB_DESTROY");
        if (record)
            record->destroy = 1;
        else
            web_upload_destroy(header->msg_id); // its bytes went to the device directly
        return 0;
    }
    if (header->type != MSG_TYPE_REQ || header->length > REQUEST_CAP)
        return 0;
    if (record && record_append(record, header, payload) != 0)
        return 1;
    if (!record)
        record_take(header, payload);
    if (s_held_since_ms == 0)
        s_held_since_ms = wait_now_ms();
    return 0;
}

void web_request_flush(void)
{
    s_held_since_ms = 0;
    for (int i = 0; i < RECORD_COUNT; i++) {
        if (g_remote_web_temp_buffer[i].in_use)
            record_flush(&g_remote_web_temp_buffer[i]);
    }
}

int web_request_due_ms(void)
{
    if (s_held_since_ms == 0)
        return INT_MAX;
    int64_t left_ms = s_held_since_ms + HELD_MAX_MS - wait_now_ms();
    return left_ms > 0 ? (int)left_ms : 0;
}
