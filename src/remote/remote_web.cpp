#include "remote/remote_web.h"

#include <atomic>
#include <errno.h>
#include <string.h>

#include "remote/tunnel.h"
#include "remote/web_frame.h"
#include "remote/web_pool.h"
#include "remote/web_request.h"
#include "remote/web_response.h"
#include "remote/web_upload.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/thread_watch.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/conn_wait.h"

constexpr size_t RECV_CAP = 16384; // a frame with more than 16367 bytes of payload never completes
constexpr int QUIET_MS = 10;       // of NM, after which the records are forwarded
constexpr int STUCK_PAUSE_MS = 10;
constexpr int RUNNING_PAUSE_MS = 1;
constexpr int IDLE_PAUSE_MS = 5;

static TunnelLock s_lock = {PTHREAD_MUTEX_INITIALIZER, {0}};
static WaitBell s_bell;                   // rung when the tunnel opens
static std::atomic<uint8_t> s_running{0}; // authentication sent and not stopped since; written under s_lock

// Under s_lock: unprocessed bytes at the start of the receive buffer, all of the connection that was authenticated
// last.
static uint8_t s_received[RECV_CAP];
static size_t s_received_len;
static int64_t s_received_ms;      // when NM last sent something
static SendProgress s_nm_progress; // of the frames to NM

int remote_web_init(void)
{
    return wait_bell_init(&s_bell);
}

static int resources_set_up(void)
{
    if (web_pool_open() != 0)
        return -1;
    if (web_request_open() != 0 || web_response_start(g_web_pool_generation) != 0) {
        web_pool_close();
        return -1;
    }
    return 0;
}

// Caller holds s_lock. Pool emptied, device connections and NM connection closed.
static void remote_web_tunnel_destroy(void)
{
    s_running = 0;
    tunnel_facts_close(TUNNEL_WEB);
    web_pool_close();
    web_upload_close();
    if (conn_info_get(REMOTE_WEB_SERVER).status != DISCONNECTED)
        conn_remove_if_connected(REMOTE_WEB_SERVER, 1);
}

// Caller holds s_lock. Sends the authentication and hands the connection that carried it to the device side.
static int authenticate_locked(const TunnelRequest *request)
{
    SocketConn nm;
    conn_hold(REMOTE_WEB_SERVER, &nm);
    if (tunnel_auth_send(request, &nm) < 0) {
        conn_drop(&nm);
        return -1;
    }
    s_received_len = 0;
    tunnel_facts_open(TUNNEL_WEB); // before the device side may answer
    web_pool_nm_set(&nm);
    return 0;
}

static int start_locked(const TunnelRequest *request)
{
    if (!web_pool_is_open() && resources_set_up() != 0)
        return 0;
    if (tunnel_nm_half_create(REMOTE_WEB_SERVER, request) != 0)
        return 0;
    if (authenticate_locked(request) != 0) {
        log_warn("Sending remote-web authentication failed!");
        remote_web_tunnel_destroy();
        return -1;
    }
    s_running = 1;
    wait_bell_ring(&s_bell);
    return 0;
}

int remote_web_req_handle(uintptr_t, const char *, const char *payload, uint32_t)
{
    static const TunnelCommands k_commands = {&s_lock, "Remote web req is invalid!", "Remote web stopped", start_locked,
                                              remote_web_tunnel_destroy};
    return tunnel_command_handle(&k_commands, payload);
}

// Hands every whole frame to the records and moves the rest to the front.
static void frames_extract(void)
{
    size_t at = 0;
    while (s_received_len - at >= WEB_HEADER_SIZE && !wait_is_cut()) {
        const uint8_t *frame = s_received + at;
        WebHeader header = web_header_get(frame);
        const uint8_t *id = header.msg_id;
        log_debug("remote-web message: msg_id [0X%02X%02X%02X%02X%02X%02X%02X%02X]", id[0], id[1], id[2], id[3], id[4],
                  id[5], id[6], id[7]);
        log_debug("remote-web message: length = %u, type = %d", header.length, header.type);
        if (header.length > s_received_len - at - WEB_HEADER_SIZE) {
            log_debug("The payload get is not complete!");
            break;
        }
        const uint8_t *payload = frame + WEB_HEADER_SIZE;
        if (web_request_handle(&header, payload) == 1) {
            web_request_flush();
            (void)web_request_handle(&header, payload); // an emptied record has room for any frame that fits here
        }
        at += WEB_HEADER_SIZE + header.length;
    }
    memmove(s_received, s_received + at, s_received_len - at);
    s_received_len -= at;
}

// After a read that brought nothing. False when the connection is at its end.
static bool receive_failed(const SocketConn *nm, int len, int error)
{
    log_warn("Receive error from: %s:%s, len: %d!", nm->remote_ip, nm->remote_port, len);
    web_request_flush();
    if (!conn_check_progress(REMOTE_WEB_SERVER, &s_nm_progress))
        return false;
    if (error == EAGAIN) {
        wait_sleep_ms(STUCK_PAUSE_MS);
        return true;
    }
    conn_remove_if_current(REMOTE_WEB_SERVER, nm, 1); // the TLS session ended, the socket below it did not
    return false;
}

// Waits for bytes of NM, for devices that have room again, and for the time at which the records are to be flushed.
// True when NM's bytes can be read.
static bool receive_wait(const SocketConn *nm)
{
    ConnWant wants[1 + WEB_UPLOAD_WANTS] = {};
    wants[0].conn = nm;
    wants[0].events = web_upload_is_full() ? 0 : POLLIN;
    int count = 1 + web_upload_wants(wants + 1);
    int due_ms = web_request_due_ms();
    (void)conns_wait(wants, count, due_ms < QUIET_MS ? due_ms : QUIET_MS);
    return wants[0].can_read;
}

// Reads once and hands on what is complete; false when the connection is at its end.
static bool receive(const SocketConn *nm)
{
    if (s_received_len > RECV_CAP) {
        log_error("Invalid buf_data_len: %u", (unsigned)s_received_len);
        s_received_len = 0;
        return false;
    }
    s_received_ms = wait_now_ms();
    size_t room = RECV_CAP - s_received_len;
    if (room == 0) // an incomplete frame fills the buffer: nothing more can be read until NM gives up
        return receive_failed(nm, 0, EAGAIN);
    int len = conn_recv(nm, s_received + s_received_len, room);
    if (len < 1)
        return receive_failed(nm, len, len < 0 ? errno : 0);
    log_debug("Receive remote-web message from: %s:%s, len:%d", nm->remote_ip, nm->remote_port, len);
    s_received_len += (size_t)len;
    tunnel_facts_add(TUNNEL_WEB, (uint64_t)len, 0, 0);
    frames_extract();
    return true;
}

// One turn of the receive loop; false when it is to be left.
static bool receive_turn(const SocketConn *nm)
{
    thread_watch_begin(); // the turn of the thread lasts as long as the tunnel
    int readable = receive_wait(nm);
    if (wait_is_cut())
        return false;
    web_upload_turn();
    if (readable && !receive(nm))
        return false;
    bool quiet = !readable && wait_now_ms() - s_received_ms >= QUIET_MS;
    if (quiet || web_request_due_ms() == 0)
        web_request_flush();
    return readable || conn_check_progress(REMOTE_WEB_SERVER, &s_nm_progress);
}

// The receive loop on the NM side; leaves when the connection is gone or a command wants the lock, which the caller
// holds.
static void remote_web_data_handle_privately(void)
{
    SocketConn nm;
    if (conn_hold(REMOTE_WEB_SERVER, &nm)) {
        while (!wait_is_cut() && receive_turn(&nm)) {
        }
    }
    conn_drop(&nm);
}

// One step of the thread remote_web, without effect while a command is at work.
static void remote_web_poll(void)
{
    CallOff before;
    if (tunnel_try_lock(&s_lock, &before) != 0)
        return;
    if (s_running && !conn_check_progress(REMOTE_WEB_SERVER, &s_nm_progress)) {
        log_info("Server remote-web connection lost! Destroy tunnel now.");
        remote_web_tunnel_destroy();
    } else if (s_running) {
        remote_web_data_handle_privately();
    }
    tunnel_unlock(&s_lock, &before);
}

void remote_web_turn(void)
{
    if (s_running) {
        remote_web_poll();
        wait_cadence_ms(RUNNING_PAUSE_MS);
    } else if (wait_bell(&s_bell, -1) != WAIT_READY) {
        wait_cadence_ms(IDLE_PAUSE_MS);
    }
}

bool remote_web_device_thread_running(void)
{
    return web_response_running();
}
