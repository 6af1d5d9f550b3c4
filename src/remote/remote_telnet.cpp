#include "remote/remote_telnet.h"
#include "remote/remote_telnet_internal.h"

#include <atomic>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "remote/tunnel.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/thread_watch.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"
#include "transport/conn_wait.h"
#include "transport/field_extract.h"

constexpr size_t RELAY_CAP = 10240;     // bytes of one read, with a NUL behind them
constexpr size_t CTRL_CAP = 512;        // control message, with its NUL
constexpr int ANSWER_TIMEOUT_MS = 5000; // of NM, in each step of the set-up
constexpr int RELAY_WAIT_MS = 100;
constexpr int CADENCE_MS = 5;
constexpr uint32_t HEX_ABOVE_LEVEL = 6;

static TunnelLock s_lock = {PTHREAD_MUTEX_INITIALIZER, {0}};
static WaitBell s_bell;                   // rung when the tunnel stands
static std::atomic<uint8_t> s_running{0}; // both halves stand; written under s_lock

// One direction: its source is read only when its target has taken all of what was read before.
struct RelayWay {
    char bytes[RELAY_CAP];
    size_t len;            // read
    size_t sent;           // of them; sent <= len < RELAY_CAP
    short send_events;     // what the next attempt to send waits for
    SendProgress progress; // of the target
};

// Under s_lock.
static RelayWay s_to_device;
static RelayWay s_to_nm;

int remote_telnet_init(void)
{
    return wait_bell_init(&s_bell);
}

static void ways_clear(void)
{
    s_to_device.len = s_to_device.sent = 0;
    s_to_nm.len = s_to_nm.sent = 0;
}

static void tunnel_destroy_locked(void)
{
    s_running = 0;
    tunnel_facts_close(TUNNEL_TELNET);
    half_tunnel_close(REMOTE_TELNET_SERVER, REMOTE_TELNET_DEVICE);
}

bool remote_telnet_is_init(const char *text)
{
    char type[ID_TEXT_SIZE] = {};
    json_key_extract(text, "type", type, sizeof(type));
    return strcmp(type, "INIT") == 0;
}

// Where the JSON object that text begins with ends, null when it does not end (or begin).
static char *object_end(char *text)
{
    int depth = 0;
    bool quoted = false;
    for (char *c = text; *c; c++) {
        if (quoted && *c == '\\' && c[1])
            c++;
        else if (*c == '"')
            quoted = !quoted;
        else if (!quoted && *c == '{')
            depth++;
        else if (!quoted && *c == '}' && --depth == 0)
            return c + 1;
    }
    return nullptr;
}

// NM may send answer and control message in one segment. Cuts the answer, of len bytes, after its JSON object; copies
// the next object to ctrl, or "".
static void answer_split(char *answer, size_t len, char (&ctrl)[CTRL_CAP])
{
    ctrl[0] = '\0';
    char *end = object_end(answer);
    if (!end)
        return;
    char *rest = end;
    while (rest < answer + len && *rest != '{')
        rest++;
    (void)text_set(ctrl, rest); // a NUL stands behind the last byte read
    *end = '\0';
}

// Sends the authentication and reads NM's answer. True when NM accepts it; ctrl then holds the control message, if it
// came in the same segment.
static bool authenticate_locked(const TunnelRequest *request, const SocketConn *nm, char (&ctrl)[CTRL_CAP])
{
    if (tunnel_auth_send(request, nm) < 0) {
        log_warn("Sending remote-telnet authentication failed!");
        return false;
    }
    if (!conn_readable(nm, ANSWER_TIMEOUT_MS)) {
        if (!wait_is_cut())
            log_warn("Receive remote-telnet authentication response timeout!");
        return false;
    }
    char answer[RELAY_CAP];
    int len = conn_recv(nm, answer, sizeof(answer) - 1);
    char result[ID_TEXT_SIZE] = {};
    if (len >= 0) {
        answer[len] = '\0';
        answer_split(answer, (size_t)len, ctrl);
        json_key_extract(answer, "result", result, sizeof(result));
    }
    bool accepted = strcmp(result, "true") == 0;
    if (len < 0)
        log_warn("Receving remote-telnet authentication response failed!"); // sic
    else if (!accepted)
        log_warn("Remote-telnet authentication/INIT failed!");
    return accepted;
}

// Waits for the control message unless it came already. True when it is "INIT".
static bool ctrl_msg_receive(const SocketConn *nm, char (&ctrl)[CTRL_CAP])
{
    if (ctrl[0] == '\0') {
        if (!conn_readable(nm, ANSWER_TIMEOUT_MS)) {
            if (!wait_is_cut())
                log_warn("Receive remote-telnet authentication auth_rsp timeout!");
            return false;
        }
        int len = conn_recv(nm, ctrl, CTRL_CAP - 1);
        if (len < 1) {
            log_warn("Receive failed with ret: %d!", len);
            return false;
        }
        ctrl[len] = '\0';
    }
    log_info("Remote-telnet ctrl_msg: %s", ctrl);
    if (remote_telnet_is_init(ctrl))
        return true;
    log_warn("Create remote telnet tunnel to NM failed!");
    return false;
}

static bool device_half_create(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    TunnelPeer peer = {};
    (void)text_set(peer.remote_ip, info.dev_telnet.remote_ip);
    (void)text_set(peer.remote_port, info.dev_telnet.remote_port);
    if (half_tunnel_create(REMOTE_TELNET_DEVICE, &peer) != 0 || !conn_is_connected(REMOTE_TELNET_DEVICE)) {
        log_warn("Create remote telnet tunnel to device failed!");
        return false;
    }
    log_info("Creating Remote-telnet tunnel to device successfully!");
    return true;
}

// True when the tunnel stands; else the caller closes the halves.
static bool remote_telnet_auth(const TunnelRequest *request)
{
    SocketConn nm;
    char ctrl[CTRL_CAP] = {};
    conn_hold(REMOTE_TELNET_SERVER, &nm);
    bool init = authenticate_locked(request, &nm, ctrl) && ctrl_msg_receive(&nm, ctrl);
    conn_drop(&nm);
    return init && device_half_create();
}

static int start_locked(const TunnelRequest *request)
{
    if (tunnel_nm_half_create(REMOTE_TELNET_SERVER, request) != 0) {
        log_warn("Create remote telnet tunnel to NM failed!");
        return -1;
    }
    if (!remote_telnet_auth(request)) {
        log_warn("Authentication/INIT failure!");
        tunnel_destroy_locked();
        return -1;
    }
    ways_clear();
    tunnel_facts_open(TUNNEL_TELNET);
    s_running = 1;
    wait_bell_ring(&s_bell);
    log_info("Authentication/INIT sucessfully!"); // sic
    return 0;
}

int remote_telnet_req_handle(uintptr_t, const char *, const char *payload, uint32_t)
{
    static const TunnelCommands k_commands = {&s_lock, "Remote telnet req is invalid!", "Remote telnet stopped",
                                              start_locked, tunnel_destroy_locked};
    return tunnel_command_handle(&k_commands, payload);
}

static void hex_log(const SocketConn *to, const char *bytes, size_t len)
{
    if (g_log_level <= HEX_ABOVE_LEVEL)
        return;
    static const char k_digits[] = "0123456789ABCDEF";
    char *hex = (char *)malloc(len * 3 + 1);
    if (!hex)
        return;
    for (size_t i = 0; i < len; i++) {
        hex[i * 3] = k_digits[(unsigned char)bytes[i] >> 4];
        hex[i * 3 + 1] = k_digits[(unsigned char)bytes[i] & 15];
        hex[i * 3 + 2] = ' ';
    }
    hex[len * 3] = '\0';
    log_debug("Send remote-telnet message to: %s:%s, HEX content:\n%s", to->remote_ip, to->remote_port, hex);
    free(hex);
}

static bool way_is_empty(const RelayWay *way)
{
    return way->sent == way->len;
}

enum RelayResult { RELAY_BROKEN = -1, RELAY_DONE = 0, RELAY_ON = 1 };

// Sends as much of what was read as the target takes now; the rest stays. RELAY_DONE when the target is broken: the
// next step tears down.
static RelayResult way_send(RelayWay *way, const SocketConn *to)
{
    if (way_is_empty(way))
        return RELAY_ON;
    int sent = conn_send_some(to, way->bytes + way->sent, way->len - way->sent, &way->send_events);
    if (sent > 0)
        way->sent += (size_t)sent;
    if (sent > 0 && way == &s_to_nm)
        tunnel_facts_add(TUNNEL_TELNET, 0, (uint64_t)sent, 0);
    return sent < 0 ? RELAY_DONE : RELAY_ON;
}

// The first attempt for what was just read.
static RelayResult way_begin(RelayWay *way, int len, const SocketConn *to)
{
    way->len = (size_t)len;
    way->sent = 0;
    RelayResult result = way_send(way, to);
    hex_log(to, way->bytes, way->len);
    return result;
}

// After a read that brought nothing: nothing was there, the side's end, or an error, which ends the tunnel.
static RelayResult read_failed(const SocketConn *side, int len, int error)
{
    if (len < 0 && error == EAGAIN)
        return RELAY_ON;
    if (len < 0) {
        log_warn("Broken tunnel from %s:%s, shutdown!", side->remote_ip, side->remote_port);
        tunnel_destroy_locked();
        return RELAY_BROKEN;
    }
    log_warn("Receive error from %s:%s! len: %d", side->remote_ip, side->remote_port, len);
    return RELAY_ON;
}

// One read of NM's bytes, which go to the device; an "INIT" among them starts a new session of the device instead.
static RelayResult nm_relay(const SocketConn *nm, SocketConn *device, bool *nm_ended)
{
    int len = conn_recv(nm, s_to_device.bytes, RELAY_CAP - 1);
    *nm_ended = len == 0;
    if (len < 1)
        return read_failed(nm, len, errno);
    log_debug("Receive remote-telnet message from NM, len: %d.", len);
    tunnel_facts_add(TUNNEL_TELNET, (uint64_t)len, 0, 0);
    s_to_device.bytes[len] = '\0';
    if (!remote_telnet_is_init(s_to_device.bytes))
        return way_begin(&s_to_device, len, device);
    conn_drop(device);
    conn_reconnect(REMOTE_TELNET_DEVICE);
    conn_hold(REMOTE_TELNET_DEVICE, device);
    return RELAY_ON;
}

// Sends all of it, or shuts NM's half down. 0, or -1.
static int stream_send(const SocketConn *nm, const char *bytes, size_t len)
{
    SendPart part = {bytes, len};
    if (conn_send(nm, SEND_STREAM, &part, 1) < 0)
        return -1;
    tunnel_facts_add(TUNNEL_TELNET, 0, len, 0);
    return 0;
}

// Sends the device's last bytes to NM. They can still be read from the held connection after its shutdown.
static void farewell_relay(const SocketConn *nm, const SocketConn *device)
{
    int result = stream_send(nm, s_to_nm.bytes + s_to_nm.sent, s_to_nm.len - s_to_nm.sent);
    int len;
    while (result == 0 && device->socket_fd > 0 && (len = conn_recv(device, s_to_nm.bytes, RELAY_CAP - 1)) > 0) {
        result = stream_send(nm, s_to_nm.bytes, (size_t)len);
        hex_log(nm, s_to_nm.bytes, (size_t)len);
    }
}

// One read of the device's bytes, which go to NM.
static RelayResult device_relay(const SocketConn *nm, const SocketConn *device)
{
    if (!conn_check_progress(REMOTE_TELNET_DEVICE, &s_to_device.progress)) {
        log_warn("Remote telnet to Device is broken! Destroy tunnel!");
        farewell_relay(nm, device);
        tunnel_destroy_locked();
        return RELAY_DONE;
    }
    int len = conn_recv(device, s_to_nm.bytes, RELAY_CAP - 1);
    if (len < 1)
        return read_failed(device, len, errno);
    log_debug("Receive remote-telnet message from device, len: %d.", len);
    return way_begin(&s_to_nm, len, nm);
}

// What one side is waited for: its bytes when the way from it is free, room for the rest of the way to it.
static ConnWant side_want(const SocketConn *side, bool reads, const RelayWay *from, const RelayWay *to)
{
    ConnWant want = {};
    want.conn = side;
    want.events = reads && way_is_empty(from) ? POLLIN : 0;
    want.send_events = way_is_empty(to) ? (short)0 : to->send_events;
    return want;
}

// One step on held halves: bytes go both ways, neither waiting for the other, until nothing has moved for 100 ms.
static RelayResult relay_step(const SocketConn *nm, SocketConn *device)
{
    bool nm_ended = false; // an end stays readable; the liveness test of the next step deals with it
    RelayResult result = RELAY_ON;
    while (result == RELAY_ON && s_running && !wait_is_cut()) {
        thread_watch_begin(); // the step lasts as long as bytes move
        ConnWant sides[2] = {side_want(nm, !nm_ended, &s_to_device, &s_to_nm),
                             side_want(device, true, &s_to_nm, &s_to_device)};
        if (conns_wait(sides, 2, RELAY_WAIT_MS) == 0)
            return RELAY_DONE;
        if (sides[0].can_send)
            result = way_send(&s_to_nm, nm);
        if (sides[1].can_send && result == RELAY_ON)
            result = way_send(&s_to_device, device);
        if (sides[0].can_read && result == RELAY_ON)
            result = nm_relay(nm, device, &nm_ended);
        if (sides[1].can_read && result == RELAY_ON)
            result = device_relay(nm, device);
    }
    return result;
}

// Drops the held half to NM and connects it again. True when it stands, held in *nm.
static bool nm_half_reconnect(SocketConn *nm)
{
    conn_drop(nm);
    return conn_reconnect(REMOTE_TELNET_SERVER) && conn_hold(REMOTE_TELNET_SERVER, nm);
}

// True when both halves are usable; else the tunnel is torn down, after the device's last bytes were delivered.
static bool has_usable_halves(SocketConn *nm, const SocketConn *device)
{
    if (!conn_check_progress(REMOTE_TELNET_SERVER, &s_to_nm.progress)) {
        log_info("NM remote-web connection lost! Destroy tunnel now."); // sic, although this is telnet
    } else if (!conn_check_progress(REMOTE_TELNET_DEVICE, &s_to_device.progress)) {
        log_info("Device remote-web connection lost! Destroy tunnel now."); // sic
        farewell_relay(nm, device);
    } else if (!conn_check_progress(REMOTE_TELNET_SERVER, &s_to_nm.progress) && !nm_half_reconnect(nm)) {
        log_warn("Remote telnet to NM is broken! Destroy tunnel!");
    } else {
        return true;
    }
    tunnel_destroy_locked();
    return false;
}

static int data_handle_locked(void)
{
    if (!s_running)
        return 0;
    SocketConn nm;
    SocketConn device;
    conn_hold(REMOTE_TELNET_SERVER, &nm);
    conn_hold(REMOTE_TELNET_DEVICE, &device);
    RelayResult result = RELAY_DONE;
    if (has_usable_halves(&nm, &device))
        result = relay_step(&nm, &device);
    conn_drop(&device);
    conn_drop(&nm);
    return result == RELAY_BROKEN ? -1 : 0;
}

int remote_telnet_data_handle(void)
{
    CallOff before;
    if (tunnel_try_lock(&s_lock, &before) != 0)
        return 0;
    int result = data_handle_locked();
    tunnel_unlock(&s_lock, &before);
    return result;
}

void remote_telnet_turn(void)
{
    if (!s_running && wait_bell(&s_bell, -1) == WAIT_READY)
        return;
    if (s_running)
        remote_telnet_data_handle();
    wait_cadence_ms(CADENCE_MS);
}
