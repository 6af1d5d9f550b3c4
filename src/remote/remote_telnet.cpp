#include "remote/remote_telnet.h"

#include <atomic>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "remote/tunnel.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
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
static char s_buf[RELAY_CAP];             // what was read last; under s_lock

int remote_telnet_init(void)
{
    return wait_bell_init(&s_bell);
}

static void tunnel_destroy_locked(void)
{
    s_running = 0;
    half_tunnel_close(REMOTE_TELNET_SERVER, REMOTE_TELNET_DEVICE);
}

int remote_telnet_is_init(const char *text)
{
    char type[ID_TEXT_SIZE] = {};
    json_key_extract(text, "type", type, sizeof(type));
    return strcmp(type, "INIT") == 0;
}

// Where the JSON object that text begins with ends, null when it does not end (or begin).
static char *object_end(char *text)
{
    int depth = 0;
    int quoted = 0;
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

// NM may send both texts of the set-up at once. Ends the first one of len bytes in place; the rest, without what parts
// them, into ctrl (empty when there is none).
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

// The authentication and NM's answer to it. 1 when NM lets us in, with the control message in ctrl if it came along.
static int authenticate_locked(const TunnelRequest *request, const SocketConn *nm, char (&ctrl)[CTRL_CAP])
{
    if (tunnel_auth_send(request, nm) < 0) {
        log_warn("Sending remote-telnet authentication failed!");
        return 0;
    }
    if (!conn_readable(nm, ANSWER_TIMEOUT_MS)) {
        if (!wait_is_cut())
            log_warn("Receive remote-telnet authentication response timeout!");
        return 0;
    }
    int len = conn_recv(nm, s_buf, RELAY_CAP - 1);
    char result[ID_TEXT_SIZE] = {};
    if (len >= 0) {
        s_buf[len] = '\0';
        answer_split(s_buf, (size_t)len, ctrl);
        json_key_extract(s_buf, "result", result, sizeof(result));
    }
    int accepted = strcmp(result, "true") == 0;
    if (len < 0)
        log_warn("Receving remote-telnet authentication response failed!");
    else if (!accepted)
        log_warn("Remote-telnet authentication/INIT failed!");
    return accepted;
}

// Waits for the control message unless it came already. 1 when it is "INIT".
static int ctrl_msg_receive(const SocketConn *nm, char (&ctrl)[CTRL_CAP])
{
    if (ctrl[0] == '\0') {
        if (!conn_readable(nm, ANSWER_TIMEOUT_MS)) {
            if (!wait_is_cut())
                log_warn("Receive remote-telnet authentication auth_rsp timeout!");
            return 0;
        }
        int len = conn_recv(nm, ctrl, CTRL_CAP - 1);
        if (len < 1) {
            log_warn("Receive failed with ret: %d!", len);
            return 0;
        }
        ctrl[len] = '\0';
    }
    log_info("Remote-telnet ctrl_msg: %s", ctrl);
    if (remote_telnet_is_init(ctrl))
        return 1;
    log_warn("Create remote telnet tunnel to NM failed!");
    return 0;
}

static int device_half_create(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    TunnelPeer peer = {};
    (void)text_set(peer.remote_ip, info.dev_telnet.remote_ip);
    (void)text_set(peer.remote_port, info.dev_telnet.remote_port);
    if (half_tunnel_create(REMOTE_TELNET_DEVICE, &peer) != 0 || !conn_is_connected(REMOTE_TELNET_DEVICE)) {
        log_warn("Create remote telnet tunnel to device failed!");
        return 0;
    }
    log_info("Creating Remote-telnet tunnel to device successfully!");
    return 1;
}

// Non-zero when the tunnel stands; else the halves are the caller's to close.
static int remote_telnet_auth(const TunnelRequest *request)
{
    SocketConn nm;
    char ctrl[CTRL_CAP] = {};
    conn_hold(REMOTE_TELNET_SERVER, &nm);
    int init = authenticate_locked(request, &nm, ctrl) && ctrl_msg_receive(&nm, ctrl);
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
    s_running = 1;
    wait_bell_ring(&s_bell);
    log_info("Authentication/INIT sucessfully!");
    return 0;
}

int remote_telnet_req_handle(uintptr_t, const char *, const char *payload, uint32_t)
{
    static const TunnelCommands k_commands = {&s_lock, "Remote telnet req is invalid!", "Remote telnet stopped",
                                              start_locked, tunnel_destroy_locked};
    return tunnel_command_handle(&k_commands, payload);
}

enum ReadySide { READY_NONE = 0, READY_NM = 1, READY_DEVICE = 2 }; // bits

// Waits on both sides at once. What has bytes (or an end) to be read, READY_NONE after a time-out or when cut.
static int sides_wait(const SocketConn *nm, const SocketConn *device, int timeout_ms)
{
    int64_t end_ms = wait_now_ms() + timeout_ms;
    for (;;) {
        // Asked before the descriptors: a TLS session may hold bytes already, or only part of a record.
        int ready = (nm->socket_fd > 0 && conn_readable(nm, 0) ? READY_NM : 0) |
                    (device->socket_fd > 0 && conn_readable(device, 0) ? READY_DEVICE : 0);
        int64_t left_ms = end_ms - wait_now_ms();
        if (ready || left_ms <= 0)
            return ready;
        struct pollfd fds[2] = {{nm->socket_fd, POLLIN, 0}, {device->socket_fd, POLLIN, 0}};
        if (wait_fds(fds, 2, (int)left_ms) != WAIT_READY)
            return READY_NONE;
    }
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

// The send's result, negative when the bytes did not all leave: that half is shut then.
static int relay_send(const SocketConn *to, const char *bytes, size_t len)
{
    SendPart part = {bytes, len};
    int sent = conn_send(to, SEND_STREAM, &part, 1);
    hex_log(to, bytes, len);
    return sent;
}

enum RelayResult { RELAY_BROKEN = -1, RELAY_DONE = 0, RELAY_ON = 1 };

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
static RelayResult nm_relay(const SocketConn *nm, SocketConn *device, int *nm_ended)
{
    int len = conn_recv(nm, s_buf, RELAY_CAP - 1);
    *nm_ended = len == 0;
    if (len < 1)
        return read_failed(nm, len, errno);
    log_debug("Receive remote-telnet message from NM, len: %d.", len);
    s_buf[len] = '\0';
    if (!remote_telnet_is_init(s_buf)) {
        relay_send(device, s_buf, (size_t)len);
        return RELAY_ON;
    }
    conn_drop(device);
    conn_reconnect(REMOTE_TELNET_DEVICE);
    conn_hold(REMOTE_TELNET_DEVICE, device);
    return RELAY_ON;
}

// What the device said before it closed, on its held connection; its receive queue outlives the shutdown.
static void farewell_relay(const SocketConn *nm, const SocketConn *device)
{
    int len;
    while (device->socket_fd > 0 && (len = conn_recv(device, s_buf, RELAY_CAP - 1)) > 0) {
        if (relay_send(nm, s_buf, (size_t)len) < 0)
            return;
    }
}

// One read of the device's bytes, which go to NM. RELAY_DONE when NM does not take them: the next step tears down.
static RelayResult device_relay(const SocketConn *nm, const SocketConn *device)
{
    if (!conn_check(REMOTE_TELNET_DEVICE)) {
        log_warn("Remote telnet to Device is broken! Destroy tunnel!");
        farewell_relay(nm, device);
        tunnel_destroy_locked();
        return RELAY_DONE;
    }
    int len = conn_recv(device, s_buf, RELAY_CAP - 1);
    if (len < 1)
        return read_failed(device, len, errno);
    log_debug("Receive remote-telnet message from device, len: %d.", len);
    return relay_send(nm, s_buf, (size_t)len) < 0 ? RELAY_DONE : RELAY_ON;
}

// One step on held halves: what NM has, then what the device has until it is silent or NM has bytes again.
static RelayResult relay_step(const SocketConn *nm, SocketConn *device)
{
    int nm_ended = 0; // an end of NM's bytes stays readable; the next step's liveness test deals with it
    if (sides_wait(nm, device, RELAY_WAIT_MS) & READY_NM) {
        RelayResult result = nm_relay(nm, device, &nm_ended);
        if (result != RELAY_ON)
            return result;
    }
    static const SocketConn k_none = {};
    while (s_running && !wait_is_cut()) {
        int ready = sides_wait(nm_ended ? &k_none : nm, device, RELAY_WAIT_MS);
        if (!(ready & READY_DEVICE))
            return RELAY_DONE;
        RelayResult result = device_relay(nm, device);
        if (result != RELAY_ON || (ready & READY_NM))
            return result;
    }
    return RELAY_DONE;
}

// NM's half anew; what was held of the old one is let go. 1 when it stands.
static int nm_half_reconnect(SocketConn *nm)
{
    conn_drop(nm);
    return conn_reconnect(REMOTE_TELNET_SERVER) && conn_hold(REMOTE_TELNET_SERVER, nm);
}

// Both halves are usable: 1; else the tunnel is torn down, with the device's last words delivered.
static int halves_usable(SocketConn *nm, const SocketConn *device)
{
    if (!conn_check(REMOTE_TELNET_SERVER)) {
        log_info("NM remote-web connection lost! Destroy tunnel now.");
    } else if (!conn_check(REMOTE_TELNET_DEVICE)) {
        log_info("Device remote-web connection lost! Destroy tunnel now.");
        farewell_relay(nm, device);
    } else if (!conn_check(REMOTE_TELNET_SERVER) && !nm_half_reconnect(nm)) {
        log_warn("Remote telnet to NM is broken! Destroy tunnel!");
    } else {
        return 1;
    }
    tunnel_destroy_locked();
    return 0;
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
    if (halves_usable(&nm, &device))
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
