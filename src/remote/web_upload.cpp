#include "remote/web_upload.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include "remote/byte_queue.h"
#include "remote/tunnel.h"
#include "remote/web_pool.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"
#include "transport/connect.h"

constexpr size_t HELD_MAX = 256 * 1024; // bytes in all queues, beyond which NM is read no further
constexpr int WAIT_LINE_MS = 100;       // between two lines about msg_ids that wait for a slot
constexpr int LOST_QUIET_MS = 500;      // without bytes of a lost msg_id, after which they count as a new stream
// Of one send. A segment that fills the loopback's 64 KiB is acknowledged only after 40 ms, and the send buffer, which
// is smaller, takes nothing until then.
constexpr size_t SEND_MAX = 16384;
constexpr int DEVICE_SEND_BUFFER_SIZE = 4096;
constexpr int DEVICE_RECV_BUFFER_SIZE = 65536;

// What the device of a slot has still to take.
struct Upload {
    uint32_t binding; // of the slot, when the queue began
    uint8_t msg_id[WEB_ID_SIZE];
    SocketConn conn; // held while the queue is not empty
    short send_events;
    ByteQueue queue;
    SendProgress progress;
};

// A msg_id for which no slot was free.
struct Waiting {
    Waiting *next;
    bool is_destroyed; // NM has closed the msg_id: its slot ends behind the bytes
    uint8_t msg_id[WEB_ID_SIZE];
    ByteQueue queue;
};

// A msg_id of which bytes were lost.
struct Lost {
    int64_t until_ms; // 0: free
    uint8_t msg_id[WEB_ID_SIZE];
};

// All under the tunnel's command lock.
static Upload s_uploads[WEB_SLOT_COUNT];
static_assert(WEB_UPLOAD_WANTS == WEB_SLOT_COUNT, "one want per slot");
static Waiting *s_waiting; // in the order of arrival
static int64_t s_wait_line_ms;
static Lost s_lost[WEB_SLOT_COUNT];
static int s_lost_next; // the entry to be used again
static size_t s_held;   // bytes in all queues and their entries

static bool has_queue(const Upload *upload)
{
    return byte_queue_len(&upload->queue) > 0;
}

bool web_upload_is_full(void)
{
    return s_held >= HELD_MAX;
}

static Lost *lost_find(const uint8_t *msg_id)
{
    for (Lost &lost : s_lost) {
        if (lost.until_ms > wait_now_ms() && web_is_same_id(lost.msg_id, msg_id))
            return &lost;
    }
    return nullptr;
}

static void lost_note(const uint8_t *msg_id)
{
    Lost *lost = lost_find(msg_id);
    if (!lost) {
        lost = &s_lost[s_lost_next];
        s_lost_next = (s_lost_next + 1) % WEB_SLOT_COUNT;
    }
    memcpy(lost->msg_id, msg_id, WEB_ID_SIZE);
    lost->until_ms = wait_now_ms() + LOST_QUIET_MS;
}

static void lost_forget(const uint8_t *msg_id)
{
    Lost *lost = lost_find(msg_id);
    if (lost)
        lost->until_ms = 0;
}

static void upload_clear(Upload *upload)
{
    s_held -= byte_queue_len(&upload->queue);
    byte_queue_clear(&upload->queue);
    conn_drop(&upload->conn);
    upload->progress = {};
}

// Drops the queue of a slot that the device side has ended meanwhile.
static void upload_settle(int index)
{
    Upload *upload = &s_uploads[index];
    if (!has_queue(upload))
        return;
    WebSlot slot;
    web_slot_hold(index, &slot);
    if (!slot.bound || slot.binding != upload->binding) {
        lost_note(upload->msg_id);
        upload_clear(upload);
    }
    conn_drop(&slot.conn);
}

static void uploads_settle(void)
{
    for (int i = 0; i < WEB_SLOT_COUNT; i++)
        upload_settle(i);
}

// Bytes of the slot's stream are missing: no more is sent, and the device side ends the slot after the device's last
// bytes.
static void slot_lose(int index, const WebSlot *slot)
{
    lost_note(slot->msg_id);
    upload_clear(&s_uploads[index]);
    (void)web_slot_fail(index, slot->conn.ref);
    (void)conn_ref_shut(slot->conn.ref);
}

static void slot_send_failed(int index, const WebSlot *slot)
{
    if (!wait_is_cut())
        log_error("tcp_send failed !!!");
    slot_lose(index, slot);
}

// Keeps what the device did not take. -1 without memory.
static int upload_keep(Upload *upload, const WebSlot *slot, const uint8_t *bytes, size_t len)
{
    if (byte_queue_append(&upload->queue, bytes, len) != 0)
        return -1;
    s_held += len;
    upload->binding = slot->binding;
    memcpy(upload->msg_id, slot->msg_id, WEB_ID_SIZE);
    if (upload->conn.ref != slot->conn.ref) {
        conn_drop(&upload->conn);
        upload->conn = slot->conn;
        conn_ref_hold(upload->conn.ref);
    }
    return 0;
}

// Hands the bytes to a slot whose connection is alive.
static void slot_write(int index, const WebSlot *slot, const uint8_t *bytes, size_t len)
{
    Upload *upload = &s_uploads[index];
    int sent = 0;
    if (!has_queue(upload))
        sent = conn_send_some(&slot->conn, bytes, len, &upload->send_events);
    if (sent < 0 || ((size_t)sent < len && upload_keep(upload, slot, bytes + sent, len - (size_t)sent) != 0))
        slot_send_failed(index, slot);
}

// Connects the slot to the device; its connection is held in *slot then. 0, or -1 (logged).
static int slot_connect(int index, WebSlot *slot)
{
    PluginInfo info;
    plugin_info_get(&info);
    const Endpoint *web = &info.dev_web;
    SocketConn conn = tcp_connect(web->remote_ip, web->remote_port, nullptr, nullptr, DEVICE_SEND_BUFFER_SIZE,
                                  DEVICE_RECV_BUFFER_SIZE);
    conn_drop(&slot->conn);
    if (conn.socket_fd < 1 || web_slot_connect(index, conn, &slot->conn) != 0) {
        log_warn("Create connection to IP: %s, Port: %s failed!", web->remote_ip, web->remote_port);
        return -1;
    }
    return 0;
}

// The connection is established. A full send buffer proves nothing: the queue is judged by its progress.
static bool device_is_alive(int fd)
{
    return wait_fd(fd, POLLIN | POLLOUT, 0) == WAIT_TIMEOUT || tcp_check_fd(fd);
}

// NM has not received all of the device's answer yet, so what NM sends is still part of the request that it answers.
// The socket is asked first: the device side sets "answering" before it reads.
static bool is_answering(int index, const WebSlot *slot)
{
    int unread = 0;
    (void)ioctl(slot->conn.socket_fd, FIONREAD, &unread);
    return unread > 0 || web_slot_is_answering(index, slot->binding);
}

enum SlotState {
    SLOT_READY,       // the connection takes bytes
    SLOT_UNREACHABLE, // no connection to the device (logged); the slot stays bound
    SLOT_LOST,        // the device has answered and closed in the middle of a request
    SLOT_GONE,        // the device side ended the slot just now
};

static SlotState slot_prepare(int index, WebSlot *slot)
{
    int fd = slot->conn.socket_fd;
    if (slot->failing)
        return SLOT_LOST;
    if (has_queue(&s_uploads[index]) || (fd > 0 && device_is_alive(fd)))
        return SLOT_READY;
    if (fd > 0) {
        log_info("Invalid socket or socket disconnected: socket_fd = %d!", fd);
        if (is_answering(index, slot))
            return SLOT_LOST;
        if (!web_slot_disconnect(index, slot->conn.ref))
            return SLOT_GONE;
    }
    return slot_connect(index, slot) == 0 ? SLOT_READY : SLOT_UNREACHABLE;
}

// Bytes for a bound slot. SLOT_GONE when it is no longer bound.
static SlotState slot_forward(int index, WebSlot *slot, const uint8_t *bytes, size_t len)
{
    SlotState state = slot_prepare(index, slot);
    if (state == SLOT_READY)
        slot_write(index, slot, bytes, len);
    else if (state == SLOT_LOST)
        slot_lose(index, slot);
    if (state == SLOT_READY || state == SLOT_LOST)
        log_debug("Forwad remote-web message to device: len = %d", (int)len); // sic
    return state;
}

// The slot of the msg_id with its copy, bound now if it had none; -1 when none is free or its own one is closing.
static int slot_obtain(const uint8_t *msg_id, WebSlot *slot)
{
    int index = web_slot_hold_id(msg_id, slot);
    if (index >= 0 && slot->closing) {
        conn_drop(&slot->conn);
        return -1;
    }
    if (index < 0) {
        index = web_slot_bind(msg_id);
        if (index < 0)
            return -1;
        tunnel_facts_add(TUNNEL_WEB, 0, 0, 1);
        upload_settle(index); // the slot may have been ended, with bytes left in its queue, just now
        web_slot_hold(index, slot);
    }
    return index;
}

// True when the bytes went to a slot (or were lost with it), false when the msg_id has to wait for one.
static bool forward_now(const uint8_t *msg_id, const uint8_t *bytes, size_t len)
{
    for (;;) {
        WebSlot slot;
        int index = slot_obtain(msg_id, &slot);
        if (index < 0)
            return false;
        SlotState state = slot_forward(index, &slot, bytes, len);
        conn_drop(&slot.conn);
        if (state != SLOT_GONE) // else the device side ended it, which it does once
            return true;
    }
}

// The msg_id's first entry in the list. NM may use a msg_id again while an earlier use, which it has closed, still
// waits: what comes later has to stay behind it.
static Waiting *waiting_first(const uint8_t *msg_id)
{
    Waiting *waiting = s_waiting;
    while (waiting && !web_is_same_id(waiting->msg_id, msg_id))
        waiting = waiting->next;
    return waiting;
}

// The entry of the msg_id's present use, which NM has not closed.
static Waiting *waiting_find(const uint8_t *msg_id)
{
    Waiting *waiting = s_waiting;
    while (waiting && (waiting->is_destroyed || !web_is_same_id(waiting->msg_id, msg_id)))
        waiting = waiting->next;
    return waiting;
}

static void waiting_remove(Waiting *gone)
{
    Waiting **link = &s_waiting;
    while (*link != gone)
        link = &(*link)->next;
    *link = gone->next;
    s_held -= sizeof(*gone) + byte_queue_len(&gone->queue);
    byte_queue_clear(&gone->queue);
    free(gone);
}

static Waiting *waiting_add(const uint8_t *msg_id)
{
    Waiting *waiting = (Waiting *)calloc(1, sizeof(*waiting));
    if (!waiting)
        return nullptr;
    memcpy(waiting->msg_id, msg_id, WEB_ID_SIZE);
    Waiting **link = &s_waiting;
    while (*link)
        link = &(*link)->next;
    *link = waiting;
    s_held += sizeof(*waiting);
    return waiting;
}

static void wait_line_log(void)
{
    int64_t now_ms = wait_now_ms();
    if (now_ms - s_wait_line_ms < WAIT_LINE_MS)
        return;
    s_wait_line_ms = now_ms;
    log_info("Wait a moment for resource!");
}

// Without memory the bytes are lost, and what follows is dropped too.
static void wait_for_slot(const uint8_t *msg_id, const uint8_t *bytes, size_t len)
{
    Waiting *waiting = waiting_find(msg_id);
    if (!waiting)
        waiting = waiting_add(msg_id);
    if (waiting && byte_queue_append(&waiting->queue, bytes, len) == 0) {
        s_held += len;
        wait_line_log();
        return;
    }
    log_error("malloc error!");
    if (waiting)
        waiting_remove(waiting);
    lost_note(msg_id);
}

void web_upload_forward(const uint8_t *msg_id, const uint8_t *bytes, uint32_t len)
{
    if (!msg_id)
        log_error("msg_id is NULL!");
    if (!bytes)
        log_error("msg_body is NULL!");
    if (len == 0)
        log_error("len is INVALID!");
    if (!msg_id || !bytes || len == 0)
        return;
    uploads_settle();
    if (lost_find(msg_id)) {
        lost_note(msg_id); // it goes on
        log_debug("Forwad remote-web message to device: len = %d", (int)len);
    } else if (waiting_first(msg_id) || !forward_now(msg_id, bytes, len)) {
        wait_for_slot(msg_id, bytes, len);
    }
}

static void slot_end(int index, const WebSlot *slot)
{
    upload_clear(&s_uploads[index]);
    (void)web_slot_end(index, slot->conn.ref);
}

// Ends the slot of the msg_id behind the bytes that its device has still to take.
static void slot_destroy(const uint8_t *msg_id)
{
    lost_forget(msg_id);
    WebSlot slot;
    int index = web_slot_hold_id(msg_id, &slot);
    if (index < 0)
        return;
    if (!has_queue(&s_uploads[index]) || !web_slot_close(index, slot.conn.ref))
        slot_end(index, &slot);
    conn_drop(&slot.conn);
}

void web_upload_destroy(const uint8_t *msg_id)
{
    uploads_settle();
    Waiting *waiting = waiting_find(msg_id);
    if (waiting)
        waiting->is_destroyed = true;
    if (waiting_first(msg_id) == waiting) // else the slot serves, or will serve, an earlier use
        slot_destroy(msg_id);
}

// Hands on the bytes of the first entry that gets a slot and returns it. An entry may also wait for the end of its own
// slot, and so not hold up the ones behind it.
static Waiting *waiting_forward(void)
{
    for (Waiting *waiting = s_waiting; waiting; waiting = waiting->next) {
        const ByteQueue *queue = &waiting->queue;
        if (waiting_first(waiting->msg_id) == waiting &&
            forward_now(waiting->msg_id, queue->bytes + queue->begin, byte_queue_len(queue)))
            return waiting;
    }
    return nullptr;
}

static void waiting_turn(void)
{
    while (Waiting *waiting = wait_is_cut() ? nullptr : waiting_forward()) {
        bool is_destroyed = waiting->is_destroyed;
        uint8_t msg_id[WEB_ID_SIZE];
        memcpy(msg_id, waiting->msg_id, WEB_ID_SIZE);
        waiting_remove(waiting);
        if (is_destroyed)
            slot_destroy(msg_id);
    }
    if (s_waiting)
        wait_line_log();
}

// Sends on. 1 when the queue is empty, 0 when more is to be sent, -1 when the device does not take it.
static int upload_send(Upload *upload, const WebSlot *slot)
{
    if (wait_fd(slot->conn.socket_fd, upload->send_events, 0) == WAIT_TIMEOUT)
        return conn_is_stuck(&slot->conn, &upload->progress, slot->closing ? NM_PATIENCE_MS : DEVICE_PATIENCE_MS) ? -1
                                                                                                                  : 0;
    upload->progress = {};
    ByteQueue *queue = &upload->queue;
    size_t len = byte_queue_len(queue) < SEND_MAX ? byte_queue_len(queue) : SEND_MAX;
    int sent = conn_send_some(&slot->conn, queue->bytes + queue->begin, len, &upload->send_events);
    if (sent < 0)
        return -1;
    s_held -= (size_t)sent;
    byte_queue_consume(queue, (size_t)sent);
    return !has_queue(upload);
}

static void slot_turn(int index, Upload *upload, const WebSlot *slot)
{
    int result = upload_send(upload, slot);
    if (result > 0)
        upload_clear(upload);
    if (result != 0 && slot->closing)
        slot_end(index, slot); // NM is not told what it has asked for
    else if (result < 0)
        slot_send_failed(index, slot);
}

void web_upload_turn(void)
{
    uploads_settle();
    for (int i = 0; i < WEB_SLOT_COUNT && !wait_is_cut(); i++) {
        if (!has_queue(&s_uploads[i]))
            continue;
        WebSlot slot;
        web_slot_hold(i, &slot);
        if (slot.bound)
            slot_turn(i, &s_uploads[i], &slot);
        conn_drop(&slot.conn);
    }
    waiting_turn();
}

int web_upload_wants(ConnWant *wants)
{
    int count = 0;
    for (Upload &upload : s_uploads) {
        if (!has_queue(&upload))
            continue;
        wants[count] = {};
        wants[count].conn = &upload.conn;
        wants[count].send_events = upload.send_events;
        count++;
    }
    return count;
}

void web_upload_close(void)
{
    for (Upload &upload : s_uploads)
        upload_clear(&upload);
    while (s_waiting) {
        log_info("Remote web stopped, give up to handle this REQ!");
        waiting_remove(s_waiting);
    }
    for (Lost &lost : s_lost)
        lost.until_ms = 0;
    s_wait_line_ms = 0;
}
