#include "device/dev_msg_recv.h"
#include "device/dev_msg_recv_internal.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "device/dev_msg_handle.h"
#include "device/dev_msg_send.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/nm_wait.h"

constexpr int RECV_WAIT_MS = 200;
constexpr int HANDLE_PAUSE_MS = 5;
constexpr uint32_t FRAME_LOOK_MIN = DEV_FRAME_HEADER_SIZE + 1; // a frame is looked at once a byte follows its length

// read_pos <= write_pos <= capacity, msg_capacity <= capacity. The sizes are those the areas were made with: later
// changes of the settings do not reach them.
struct DeviceMessageBuffer {
    uint32_t read_pos;
    uint32_t write_pos;
    uint32_t capacity; // bytes of data
    uint8_t *data;
    uint32_t msg_capacity; // bytes of msg
    char *msg;             // contents: dev_msg_handle only, no lock
};

// Guards the record and the contents of data; a short lock, never held while dispatching.
static pthread_mutex_t s_dev_msg_mutex = PTHREAD_MUTEX_INITIALIZER;
static DeviceMessageBuffer s_buffer;
static WaitBell s_bell; // rung when bytes were added

int dev_msg_recv_init(void)
{
    return wait_bell_init(&s_bell);
}

int dev_msg_buffer_init(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    DeviceMessageBuffer fresh = {};
    fresh.capacity = (uint32_t)info.dev_msg_buffer_size;
    fresh.msg_capacity = (uint32_t)info.max_dev_msg_size;
    fresh.data = (uint8_t *)calloc(1, fresh.capacity);
    fresh.msg = (char *)calloc(1, fresh.msg_capacity);
    if (!fresh.data || !fresh.msg) {
        log_error("malloc device message buffer failed!");
        free(fresh.data);
        free(fresh.msg);
        return 0;
    }
    pthread_mutex_lock(&s_dev_msg_mutex);
    s_buffer = fresh;
    pthread_mutex_unlock(&s_dev_msg_mutex);
    return 1;
}

bool dev_msg_has_buffer(void)
{
    pthread_mutex_lock(&s_dev_msg_mutex);
    bool has_buffer = s_buffer.data;
    pthread_mutex_unlock(&s_dev_msg_mutex);
    return has_buffer;
}

void free_device_buffers(void)
{
    pthread_mutex_lock(&s_dev_msg_mutex);
    free(s_buffer.data);
    free(s_buffer.msg);
    s_buffer = {};
    pthread_mutex_unlock(&s_dev_msg_mutex);
}

static uint32_t pending_locked(void)
{
    return s_buffer.write_pos - s_buffer.read_pos;
}

// What is pending begins with a frame whose rest is still to come.
static bool is_frame_incomplete_locked(void)
{
    uint32_t pending = pending_locked();
    if (pending < FRAME_LOOK_MIN)
        return true;
    uint32_t length = le32_get(s_buffer.data + s_buffer.read_pos);
    return length <= s_buffer.msg_capacity - DEV_FRAME_HEADER_SIZE && length > pending - DEV_FRAME_HEADER_SIZE;
}

// Bytes that may be read behind write_pos: one maximal message, for which the pending bytes are moved to the front when
// they stand in the way. Less when only the rest of an incomplete frame can bring the buffer to move again; such a
// frame always fits. 0 when the buffer has to be emptied first.
static uint32_t make_room_locked(void)
{
    if (s_buffer.capacity - s_buffer.write_pos >= s_buffer.msg_capacity)
        return s_buffer.msg_capacity;
    uint32_t pending = pending_locked();
    bool full = pending > s_buffer.capacity - s_buffer.msg_capacity;
    if (full && !is_frame_incomplete_locked())
        return 0;
    if (pending != 0)
        memmove(s_buffer.data, s_buffer.data + s_buffer.read_pos, pending);
    s_buffer.read_pos = 0;
    s_buffer.write_pos = pending;
    return full ? s_buffer.capacity - pending : s_buffer.msg_capacity;
}

// The receive does not wait (the socket is non-blocking), so it may stay under the short lock. 0 when bytes were added,
// else -1 (logged).
static int recv_locked(const SocketConn *conn)
{
    uint32_t room = make_room_locked();
    if (room == 0) {
        log_warn("The device message buffer is full! Wait a moment ...");
        return -1;
    }
    int received = conn_recv(conn, s_buffer.data + s_buffer.write_pos, room);
    if (received < 1) {
        log_warn("Receive error from: %s:%s, len: %d!", conn->remote_ip, conn->remote_port, received);
        return -1;
    }
    log_debug("Receive device message from: %s:%s, len:%d", conn->remote_ip, conn->remote_port, received);
    s_buffer.write_pos += (uint32_t)received;
    return 0;
}

// The device says that it has another init cfg, but the thread that would hear it hangs at the NM of the old one.
static bool has_reload_waiting(void)
{
    static const char k_type[] = "\"init-cfg-changed\"";
    if (!dev_msg_is_stuck())
        return false;
    pthread_mutex_lock(&s_dev_msg_mutex);
    bool found =
        s_buffer.data && memmem(s_buffer.data + s_buffer.read_pos, pending_locked(), k_type, sizeof(k_type) - 1);
    pthread_mutex_unlock(&s_dev_msg_mutex);
    return found;
}

void dev_msg_recv(void)
{
    if (has_reload_waiting())
        nm_waits_call_off();
    if (!poll_conn_readable(DEV_TCP, RECV_WAIT_MS) || !conn_check(DEV_TCP) || !dev_msg_has_buffer())
        return;
    SocketConn conn;
    if (conn_hold(DEV_TCP, &conn)) {
        log_debug("Device msg come");
        pthread_mutex_lock(&s_dev_msg_mutex);
        int result = recv_locked(&conn);
        pthread_mutex_unlock(&s_dev_msg_mutex);
        if (result == 0)
            wait_bell_ring(&s_bell);
    }
    conn_drop(&conn);
}

// An empty area is filled from its start again, so that it costs no more memory than the largest messages.
static void consume_locked(uint32_t count)
{
    s_buffer.read_pos += count;
    if (pending_locked() == 0)
        s_buffer.read_pos = s_buffer.write_pos = 0;
}

// Takes the next frame out of the buffer into the message area. Returns its content's length, 0 when there is nothing
// to hand over.
static uint32_t frame_take_locked(void)
{
    if (!s_buffer.data || pending_locked() < FRAME_LOOK_MIN)
        return 0;
    uint32_t length = le32_get(s_buffer.data + s_buffer.read_pos);
    if (length > s_buffer.msg_capacity - DEV_FRAME_HEADER_SIZE) {
        consume_locked(pending_locked()); // it can never fit, and nothing behind it can be found again
        return 0;
    }
    if (length > pending_locked() - DEV_FRAME_HEADER_SIZE) {
        log_info("The device message get is not complete!");
        return 0;
    }
    const uint8_t *content = s_buffer.data + s_buffer.read_pos + DEV_FRAME_HEADER_SIZE;
    memcpy(s_buffer.msg, content, length);
    s_buffer.msg[length] = '\0'; // within the area by the bound above; hides what an earlier message left
    consume_locked(DEV_FRAME_HEADER_SIZE + length);
    return length;
}

void dev_msg_get(void)
{
    pthread_mutex_lock(&s_dev_msg_mutex);
    uint32_t length = frame_take_locked();
    char *msg = s_buffer.msg;
    uint32_t msg_capacity = s_buffer.msg_capacity;
    pthread_mutex_unlock(&s_dev_msg_mutex);
    if (length > 0)
        dev_msg_dispatch(msg, length, msg_capacity);
}

void dev_msg_handle_turn(void)
{
    pthread_mutex_lock(&s_dev_msg_mutex);
    uint32_t pending = pending_locked();
    pthread_mutex_unlock(&s_dev_msg_mutex);
    if (pending < FRAME_LOOK_MIN)
        (void)wait_bell(&s_bell, -1);
    dev_msg_get();
    wait_cadence_ms(HANDLE_PAUSE_MS); // after a stop too: the loop ends on the exit flag, which comes later
}
