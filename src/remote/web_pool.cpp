#include "remote/web_pool.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "runtime/log.h"
#include "transport/conn_ref.h"

struct WebResource {
    uint32_t in_use; // bound
    bool failing;
    bool closing;
    bool answering; // the device side holds bytes of the device
    uint32_t binding;
    uint8_t msg_id[WEB_ID_SIZE];
    SocketConn conn; // with a reference of its own, or socket_fd -1
};

std::atomic<uint32_t> g_web_pool_generation{0};

// Guards everything below and the changes of the generation. A short lock: connections are shut under it, never closed.
static pthread_mutex_t s_pool_mutex = PTHREAD_MUTEX_INITIALIZER;
static WebResource *g_remote_web_resource; // WEB_SLOT_COUNT slots, taken once and kept
static bool s_open;
static uint32_t s_bindings; // so far
static SocketConn s_nm;     // held; socket_fd below 1: none

static void no_conn(SocketConn *conn)
{
    *conn = {};
    conn->socket_fd = -1;
}

// Takes the connection out of the slot and shuts it down; the caller drops the result after unlocking. A failed send
// may have set a linger time, which is taken back: the kernel delivers what was sent, and a stalled device must not
// hold up the other slots.
static SocketConn detach_locked(WebResource *slot)
{
    SocketConn conn = slot->conn;
    if (conn.socket_fd > 0) {
        struct linger none = {};
        shutdown(conn.socket_fd, SHUT_RDWR);
        setsockopt(conn.socket_fd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    }
    no_conn(&slot->conn);
    return conn;
}

int web_pool_open(void)
{
    int result = 0;
    pthread_mutex_lock(&s_pool_mutex);
    if (!g_remote_web_resource)
        g_remote_web_resource = (WebResource *)calloc(WEB_SLOT_COUNT, sizeof(WebResource));
    if (g_remote_web_resource) {
        for (int i = 0; i < WEB_SLOT_COUNT; i++) {
            g_remote_web_resource[i].in_use = 0;
            no_conn(&g_remote_web_resource[i].conn);
        }
        g_web_pool_generation++;
        s_open = true;
    } else {
        result = -1;
    }
    pthread_mutex_unlock(&s_pool_mutex);
    if (result != 0)
        log_error("g_remote_web_resource malloc failed!");
    return result;
}

void web_pool_close(void)
{
    SocketConn closing[WEB_SLOT_COUNT + 1];
    int count = 0;
    pthread_mutex_lock(&s_pool_mutex);
    if (s_open) {
        s_open = false;
        g_web_pool_generation++;
        for (int i = 0; i < WEB_SLOT_COUNT; i++) {
            g_remote_web_resource[i].in_use = 0;
            closing[count++] = detach_locked(&g_remote_web_resource[i]);
        }
        closing[count++] = s_nm;
        no_conn(&s_nm);
    }
    pthread_mutex_unlock(&s_pool_mutex);
    for (int i = 0; i < count; i++)
        conn_drop(&closing[i]);
}

bool web_pool_is_open(void)
{
    pthread_mutex_lock(&s_pool_mutex);
    bool open = s_open;
    pthread_mutex_unlock(&s_pool_mutex);
    return open;
}

void web_pool_nm_set(SocketConn *nm)
{
    pthread_mutex_lock(&s_pool_mutex);
    SocketConn before = s_nm;
    s_nm = *nm;
    pthread_mutex_unlock(&s_pool_mutex);
    no_conn(nm);
    conn_drop(&before);
}

bool web_pool_nm_hold(uint32_t generation, SocketConn *copy)
{
    pthread_mutex_lock(&s_pool_mutex);
    bool held = s_open && generation == g_web_pool_generation && s_nm.socket_fd > 0;
    if (held) {
        *copy = s_nm;
        conn_ref_hold(copy->ref);
    }
    pthread_mutex_unlock(&s_pool_mutex);
    if (held && !conn_is_current(REMOTE_WEB_SERVER, copy)) {
        conn_drop(copy);
        held = false;
    }
    return held;
}

static void copy_locked(const WebResource *slot, WebSlot *copy)
{
    copy->bound = true;
    copy->failing = slot->failing;
    copy->closing = slot->closing;
    copy->binding = slot->binding;
    memcpy(copy->msg_id, slot->msg_id, WEB_ID_SIZE);
    copy->conn = slot->conn;
    conn_ref_hold(copy->conn.ref);
}

void web_slot_hold(int index, WebSlot *copy)
{
    *copy = {};
    no_conn(&copy->conn);
    pthread_mutex_lock(&s_pool_mutex);
    if (s_open && g_remote_web_resource[index].in_use)
        copy_locked(&g_remote_web_resource[index], copy);
    pthread_mutex_unlock(&s_pool_mutex);
}

int web_slot_hold_id(const uint8_t *msg_id, WebSlot *copy)
{
    int index = -1;
    pthread_mutex_lock(&s_pool_mutex);
    for (int i = 0; s_open && i < WEB_SLOT_COUNT && index < 0; i++) {
        const WebResource *slot = &g_remote_web_resource[i];
        if (!slot->in_use || !web_is_same_id(slot->msg_id, msg_id))
            continue;
        index = i;
        copy_locked(slot, copy);
    }
    pthread_mutex_unlock(&s_pool_mutex);
    return index;
}

int web_slot_bind(const uint8_t *msg_id)
{
    int index = -1;
    pthread_mutex_lock(&s_pool_mutex);
    for (int i = 0; s_open && i < WEB_SLOT_COUNT && index < 0; i++) {
        WebResource *slot = &g_remote_web_resource[i];
        if (slot->in_use)
            continue;
        slot->in_use = 1;
        slot->failing = slot->closing = slot->answering = false;
        slot->binding = ++s_bindings;
        memcpy(slot->msg_id, msg_id, WEB_ID_SIZE);
        index = i;
    }
    pthread_mutex_unlock(&s_pool_mutex);
    return index;
}

int web_slot_connect(int index, SocketConn conn, SocketConn *copy)
{
    conn.ref = conn_ref_new(&conn);
    if (!conn.ref) {
        socket_close_private(&conn);
        return -1;
    }
    conn_ref_hold(conn.ref);
    *copy = conn;
    pthread_mutex_lock(&s_pool_mutex);
    g_remote_web_resource[index].conn = conn;
    pthread_mutex_unlock(&s_pool_mutex);
    return 0;
}

static bool is_current_locked(int index, const ConnRef *ref)
{
    return s_open && g_remote_web_resource[index].in_use && g_remote_web_resource[index].conn.ref == ref;
}

// Closes the slot's connection if it still is the one of ref, and unbinds the slot when unbind is set.
static bool close_current(int index, const ConnRef *ref, bool unbind)
{
    SocketConn closing;
    no_conn(&closing);
    pthread_mutex_lock(&s_pool_mutex);
    bool current = is_current_locked(index, ref);
    if (current) {
        closing = detach_locked(&g_remote_web_resource[index]);
        if (unbind)
            g_remote_web_resource[index].in_use = 0;
    }
    pthread_mutex_unlock(&s_pool_mutex);
    conn_drop(&closing);
    return current;
}

bool web_slot_disconnect(int index, const ConnRef *ref)
{
    return close_current(index, ref, false);
}

bool web_slot_end(int index, const ConnRef *ref)
{
    return close_current(index, ref, true);
}

// Sets a flag of the slot if ref is still its connection.
static bool flag_set(int index, const ConnRef *ref, bool WebResource::*flag)
{
    pthread_mutex_lock(&s_pool_mutex);
    bool current = is_current_locked(index, ref);
    if (current)
        g_remote_web_resource[index].*flag = true;
    pthread_mutex_unlock(&s_pool_mutex);
    return current;
}

bool web_slot_fail(int index, const ConnRef *ref)
{
    return flag_set(index, ref, &WebResource::failing);
}

bool web_slot_close(int index, const ConnRef *ref)
{
    return flag_set(index, ref, &WebResource::closing);
}

void web_slot_answering_set(int index, uint32_t binding, bool answering)
{
    pthread_mutex_lock(&s_pool_mutex);
    WebResource *slot = &g_remote_web_resource[index];
    if (s_open && slot->in_use && slot->binding == binding)
        slot->answering = answering;
    pthread_mutex_unlock(&s_pool_mutex);
}

bool web_slot_is_answering(int index, uint32_t binding)
{
    pthread_mutex_lock(&s_pool_mutex);
    const WebResource *slot = &g_remote_web_resource[index];
    bool answering = s_open && slot->in_use && slot->binding == binding && slot->answering;
    pthread_mutex_unlock(&s_pool_mutex);
    return answering;
}
