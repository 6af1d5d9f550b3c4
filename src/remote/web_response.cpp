#include "remote/web_response.h"

#include <atomic>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>

#include "remote/tunnel.h"
#include "remote/web_pool.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/stop.h"
#include "runtime/thread_watch.h"
#include "runtime/wait.h"
#include "runtime/work_thread.h"
#include "transport/conn_registry.h"

constexpr int FRAME_PAUSE_MS = 10; // between two frames of a slot
constexpr int PASS_MS = 10;        // between two liveness tests of the idle slots
constexpr int32_t FORWARD_LEN_DEFAULT = 10240;

// What the thread keeps of one slot.
struct Response {
    uint32_t binding; // of the slot when the bytes were read
    uint8_t *bytes;   // read_cap, taken with the first read
    size_t len;       // read
    size_t sent;      // of them; sent <= len <= read_cap
    int64_t next_frame_ms;
};

struct Responses {
    uint32_t generation;
    size_t read_cap;  // bytes of one read; settings may be read again, so they are copied at the start
    size_t frame_cap; // payload bytes of one frame
    int64_t next_pass_ms;
    bool is_short;  // no memory for a slot's reads; said once
    int first_slot; // of the next turn: where room at NM's side ran out, so that each gets its share of a slow NM
    Response slots[WEB_SLOT_COUNT];
};

static std::atomic<int> s_running{0};

static void response_reset(Response *response)
{
    free(response->bytes);
    *response = {};
}

// One frame to NM, counted when it went out. 0, or -1: NM's connection is shut down then, which is logged there.
static int frame_transmit(const SocketConn *nm, const uint8_t *bytes, size_t len, const uint8_t *msg_id, uint8_t type)
{
    if (remote_web_rsp_transmit_privately(nm, bytes, (uint32_t)len, msg_id, type) != 0)
        return -1;
    tunnel_session_count(TUNNEL_WEB, 0, WEB_HEADER_SIZE + len, 0);
    return 0;
}

static void slot_finish(int index, const WebSlot *slot, const SocketConn *nm)
{
    // Ended first: if the NM side has connected the msg_id anew, that must not be reported as closed.
    if (web_slot_end(index, slot->conn.ref))
        (void)frame_transmit(nm, nullptr, 0, slot->msg_id, MSG_TYPE_DEV_DESTROY);
}

// Sends the next frame of what was read. A frame that failed with its NM connection is kept for the next connection.
static void frame_send(const Responses *all, int index, Response *response, const WebSlot *slot, const SocketConn *nm)
{
    size_t len = response->len - response->sent;
    if (len > all->frame_cap)
        len = all->frame_cap;
    if (frame_transmit(nm, response->bytes + response->sent, len, slot->msg_id, MSG_TYPE_RESP) == 0)
        response->sent += len;
    if (response->sent == response->len)
        web_slot_answering_set(index, slot->binding, false);
    response->next_frame_ms = wait_now_ms() + FRAME_PAUSE_MS;
}

// Allocates the buffer of a slot's reads with the first one. 0, or -1 without memory, which is logged once: the slot
// waits.
static int buffer_take(Responses *all, Response *response)
{
    if (!response->bytes)
        response->bytes = (uint8_t *)malloc(all->read_cap);
    if (!response->bytes && !all->is_short)
        log_error("malloc error!");
    all->is_short = !response->bytes;
    return response->bytes ? 0 : -1;
}

static void slot_read(Responses *all, int index, Response *response, const WebSlot *slot, const SocketConn *nm)
{
    if (buffer_take(all, response) != 0) {
        response->next_frame_ms = wait_now_ms() + FRAME_PAUSE_MS;
        return;
    }
    web_slot_answering_set(index, slot->binding, true);
    int len = conn_recv(&slot->conn, response->bytes, all->read_cap);
    if (len < 1)
        web_slot_answering_set(index, slot->binding, false);
    if (len < 0 && errno == EAGAIN)
        return;
    if (len < 1) {
        if (!tcp_check_fd(slot->conn.socket_fd))
            log_info("Receive response from device, len: %d, peer shutdown!", len);
        else
            log_warn("Receive error from device, len: %d!", len);
        slot_finish(index, slot, nm);
        return;
    }
    log_debug("Receive remote-web response from device, len: %d", len);
    response->len = (size_t)len;
    response->sent = 0;
    frame_send(all, index, response, slot, nm);
}

// The idle slot's connection is no longer established. A full send buffer proves nothing: web_upload judges a device
// that does not read.
static bool slot_is_dead(int fd)
{
    return wait_fd(fd, POLLOUT, 0) != WAIT_TIMEOUT && !tcp_check_fd(fd);
}

// What to wait for after a look at all slots.
struct Watch {
    struct pollfd fds[WEB_SLOT_COUNT + 1];
    int count;
    bool nm_full; // frames are due, but NM's send buffer has no room for them
};

// Without room a send would wait and hold up every slot; the frame stays here until there is some.
static bool nm_has_room(const SocketConn *nm, Watch *watch)
{
    if (!watch->nm_full && wait_fd(nm->socket_fd, POLLOUT, 0) == WAIT_TIMEOUT) {
        watch->nm_full = true;
        watch->fds[watch->count++] = {nm->socket_fd, POLLOUT, 0};
    }
    return !watch->nm_full;
}

// One look at a slot; pass says that the idle ones are to be tested. Returns the time of the next look, unless
// something watched comes earlier.
static int64_t slot_serve(Responses *all, int index, Response *response, const WebSlot *slot, const SocketConn *nm,
                          bool pass, Watch *watch)
{
    int fd = slot->conn.socket_fd;
    if (wait_now_ms() < response->next_frame_ms)
        return response->next_frame_ms;
    if (response->sent < response->len) {
        if (!nm_has_room(nm, watch))
            return INT64_MAX;
        frame_send(all, index, response, slot, nm);
        return response->next_frame_ms;
    }
    if (all->read_cap == 0 || fd < 1) {
        if (pass && all->read_cap == 0)
            log_error("len is INVALID!");
        else if (pass)
            log_warn("Invalid socket: dev_socket_fd = %d!", fd);
        return INT64_MAX;
    }
    bool is_readable = poll_readable(fd, 0);
    bool is_dead = !is_readable && pass && slot_is_dead(fd);
    // Asked again: the device may have answered and closed between the two questions.
    if (is_readable || (is_dead && poll_readable(fd, 0))) {
        if (!nm_has_room(nm, watch))
            return INT64_MAX;
        slot_read(all, index, response, slot, nm);
        return response->next_frame_ms;
    }
    if (is_dead)
        slot_finish(index, slot, nm);
    else
        watch->fds[watch->count++] = {fd, POLLIN, 0};
    return INT64_MAX;
}

// Looks at every slot once, then waits for the next thing to do: a frame's time, bytes of an idle slot, room in NM's
// send buffer, the next pass.
static WaitResult slots_turn(Responses *all, const SocketConn *nm)
{
    WebSlot slots[WEB_SLOT_COUNT];
    Watch watch = {};
    int64_t now = wait_now_ms();
    bool pass = now >= all->next_pass_ms;
    if (pass)
        all->next_pass_ms = now + PASS_MS;
    int64_t next_ms = all->next_pass_ms;

    int first = all->first_slot;
    for (int turn = 0; turn < WEB_SLOT_COUNT; turn++) {
        int i = (first + turn) % WEB_SLOT_COUNT;
        Response *response = &all->slots[i];
        bool was_full = watch.nm_full;
        web_slot_hold(i, &slots[i]);
        if (!slots[i].bound || slots[i].binding != response->binding) {
            response_reset(response);
            response->binding = slots[i].binding;
        }
        if (!slots[i].bound || slots[i].closing || g_web_pool_generation != all->generation)
            continue;
        int64_t wanted_ms = slot_serve(all, i, response, &slots[i], nm, pass, &watch);
        if (wanted_ms < next_ms)
            next_ms = wanted_ms;
        if (watch.nm_full && !was_full)
            all->first_slot = i;
    }
    int64_t wait_ms = next_ms - wait_now_ms();
    WaitResult result = wait_fds(watch.fds, watch.count, wait_ms > 0 ? (int)wait_ms : 0);
    for (int i = 0; i < WEB_SLOT_COUNT; i++)
        conn_drop(&slots[i].conn);
    return result;
}

static void responses_serve(Responses *all)
{
    while (g_web_pool_generation == all->generation && !g_exit_flag) {
        thread_watch_begin();
        SocketConn nm;
        WaitResult waited = WAIT_CUT;
        if (web_pool_nm_hold(all->generation, &nm)) {
            waited = slots_turn(all, &nm);
            conn_drop(&nm);
        }
        if (waited == WAIT_CUT) // or no NM: nothing to do, and nothing to wait for but the end
            wait_cadence_ms(PASS_MS);
    }
}

static Responses *responses_new(uint32_t generation)
{
    Responses *all = (Responses *)calloc(1, sizeof(*all));
    if (!all)
        return nullptr;
    int32_t read_len = g_http_rsp_len;
    int32_t frame_len = g_http_forward_len;
    all->generation = generation;
    all->read_cap = read_len > 0 ? (size_t)read_len : 0;
    all->frame_cap = (size_t)(frame_len > 0 ? frame_len : FORWARD_LEN_DEFAULT);
    return all;
}

static void *remote_web_msg_handle_thread(void *arg)
{
    work_thread_set_name("remote_web_msg_handle_thread");
    Responses *all = responses_new((uint32_t)(uintptr_t)arg);
    if (all) {
        log_info("Start the remote web message handle thread.");
        wait_call_off_set({&g_web_pool_generation, all->generation});
        responses_serve(all);
        for (Response &response : all->slots)
            response_reset(&response);
        free(all);
        log_info("Remote web message handle thread exit!");
    } else {
        log_error("malloc error!");
    }
    thread_watch_leave();
    s_running--;
    return nullptr;
}

int web_response_start(uint32_t generation)
{
    s_running++;
    if (create_work_thread(remote_web_msg_handle_thread, (void *)(uintptr_t)generation) == 0)
        return 0;
    s_running--;
    log_error("Create remote_web_msg_handle_thread error!");
    return -1;
}

bool web_response_running(void)
{
    return s_running > 0;
}
