#include "remote/web_request.h"

#include <stdlib.h>
#include <string.h>

#include "remote/web_pool.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/wait.h"
#include "transport/conn_life.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"

constexpr int RECORD_COUNT = 10;
constexpr int SLOT_WAIT_MS = 100;
constexpr int ROOM_WAIT_MS = 100; // for room in a device's send buffer, which a send would sleep for just as long
constexpr int DEVICE_SEND_BUFFER_SIZE = 4096;
constexpr int DEVICE_RECV_BUFFER_SIZE = 65536;

struct WebRequest {
    uint32_t in_use;
    uint32_t destroy; // NM closed the msg_id
    uint8_t msg_id[WEB_ID_SIZE];
    uint32_t len; // held bytes
    uint8_t data[WEB_REQUEST_CAP];
};

static WebRequest *g_remote_web_temp_buffer; // RECORD_COUNT records; under the tunnel's command lock

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
    return 0;
}

static void destroy_carry_out(WebRequest *record)
{
    log_debug("destroying web id:%x%x", record->msg_id[6], record->msg_id[7]);
    web_slot_end_id(record->msg_id);
    record->destroy = 0;
    record->in_use = 0;
    log_debug("destroyed");
}

static void record_flush(WebRequest *record);

// Ahead of the wait for a slot: the reader of NM's frames stands still in it, so a destroy that already came must free
// its slot now. Held bytes go out first; where that would want a slot too, they wait for their turn.
static void destroys_carry_out(void)
{
    for (int i = 0; i < RECORD_COUNT; i++) {
        WebRequest *record = &g_remote_web_temp_buffer[i];
        if (record->in_use && record->destroy && (record->len == 0 || web_slot_find(record->msg_id) >= 0))
            record_flush(record);
    }
}

// The slot of the msg_id, bound now if it had none; -1 when the tunnel ends meanwhile.
static int slot_obtain(const uint8_t *msg_id)
{
    int index = web_slot_find(msg_id);
    while (index < 0) {
        if (wait_is_cut() || !conn_check(REMOTE_WEB_SERVER)) {
            log_info("Remote web stopped, give up to handle this REQ!");
            return -1;
        }
        index = web_slot_bind(msg_id);
        if (index >= 0)
            break;
        log_info("Wait a moment for resource!");
        destroys_carry_out();
        wait_sleep_ms(SLOT_WAIT_MS);
    }
    return index;
}

// Connects the slot to the device. 0, or -1 (logged).
static int slot_open(int index)
{
    PluginInfo info;
    plugin_info_get(&info);
    const Endpoint *web = &info.dev_web;
    SocketConn conn = tcp_connect(web->remote_ip, web->remote_port, nullptr, nullptr, DEVICE_SEND_BUFFER_SIZE,
                                  DEVICE_RECV_BUFFER_SIZE);
    if (conn.socket_fd < 1 || web_slot_connect(index, conn) != 0) {
        log_warn("Create connection to IP: %s, Port: %s failed!", web->remote_ip, web->remote_port);
        return -1;
    }
    return 0;
}

// Sends on the slot's connection. What did not leave makes a hole in the browser's stream: the connection is shut then
// and the slot marked, the device side delivers what the device still said and ends it.
static void slot_send(int index, const WebSlot *slot, const uint8_t *bytes, uint32_t len)
{
    SendPart part = {bytes, len};
    (void)wait_fd(slot->conn.socket_fd, POLLOUT, ROOM_WAIT_MS);
    if (conn_send(&slot->conn, SEND_STREAM, &part, 1) < 1) {
        if (!wait_is_cut())
            log_error("tcp_send failed !!!");
        web_slot_fail(index, slot->conn.life);
    }
}

// 1 while the connection is established. tcp_check_fd takes 2 s of a full buffer for a dead one; but whoever sends has
// the same patience for every byte.
static int device_alive(int fd)
{
    return wait_fd(fd, POLLIN | POLLOUT, 0) == WAIT_TIMEOUT || tcp_check_fd(fd);
}

// Connects the bound slot anew unless its connection is alive; *slot is held. 0; -1 when the device cannot be reached
// (logged); 1 when the device side unbound the slot meanwhile.
static int slot_connected(int index, WebSlot *slot)
{
    web_slot_hold(index, slot);
    int fd = slot->conn.socket_fd;
    if (!slot->bound)
        return 1;
    if (fd > 0 && (slot->failing || device_alive(fd)))
        return 0;
    if (fd > 0) {
        log_info("Invalid socket or socket disconnected: socket_fd = %d!", fd);
        if (!web_slot_disconnect(index, slot->conn.life))
            return 1;
    }
    if (slot_open(index) != 0)
        return -1;
    conn_drop(&slot->conn);
    web_slot_hold(index, slot); // a device that closed it already makes the send fail
    return 0;
}

static void device_forward(const uint8_t *msg_id, const uint8_t *bytes, uint32_t len)
{
    if (!msg_id)
        log_error("msg_id is NULL!");
    if (!bytes)
        log_error("msg_body is NULL!");
    if (len == 0)
        log_error("len is INVALID!");
    if (!msg_id || !bytes || len == 0)
        return;
    for (int tried = 1; tried > 0;) {
        int index = slot_obtain(msg_id);
        if (index < 0)
            return;
        WebSlot slot;
        tried = slot_connected(index, &slot);
        if (tried == 0 && !slot.failing)
            slot_send(index, &slot, bytes, len);
        if (tried == 0)
            log_debug("Forwad remote-web message to device: len = %d", (int)len);
        conn_drop(&slot.conn);
    }
}

static void record_flush(WebRequest *record)
{
    if (record->len > 0) {
        log_debug("handle length:%d, id:%x%x", (int)record->len, record->msg_id[6], record->msg_id[7]);
        device_forward(record->msg_id, record->data, record->len);
        log_debug("handle finished");
        record->len = 0;
    }
    if (record->destroy)
        destroy_carry_out(record);
}

static WebRequest *record_find(const uint8_t *msg_id)
{
    for (int i = 0; i < RECORD_COUNT; i++) {
        WebRequest *record = &g_remote_web_temp_buffer[i];
        if (record->in_use && web_id_equal(record->msg_id, msg_id))
            return record;
    }
    return nullptr;
}

static int record_append(WebRequest *record, const WebHeader *header, const uint8_t *payload)
{
    log_debug("req");
    if (header->length > WEB_REQUEST_CAP - record->len) {
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
    device_forward(header->msg_id, payload, header->length);
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
        return 0;
    }
    if (header->type != MSG_TYPE_REQ || header->length > WEB_REQUEST_CAP)
        return 0;
    if (record)
        return record_append(record, header, payload);
    record_take(header, payload);
    return 0;
}

void web_request_flush(void)
{
    for (int i = 0; i < RECORD_COUNT; i++) {
        if (g_remote_web_temp_buffer[i].in_use)
            record_flush(&g_remote_web_temp_buffer[i]);
    }
}
