#include "transport/conn_registry.h"

#include <errno.h>
#include <pthread.h>

#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_ref.h"
#include "transport/connect.h"
#include "transport/tls.h"
#include "transport/tls_verify.h"

constexpr uint32_t CONNECTION_TYPE_COUNT = REMOTE_WEB_SERVER + 1;

// Guards s_entries and nothing else; short. Log lines, handshakes, tests and closes happen outside, on copies.
static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static ConnectionInfo s_entries[CONNECTION_TYPE_COUNT];

struct TypeInfo {
    ConnectionType type; // also the row's index
    const char *name;
    bool to_nm; // encrypted when NM is reached over https
};

static const TypeInfo k_types[] = {
    {DEV_TCP, "DEV_TCP", false},
    {NM_UDP_DETECTION, "NM_UDP_DETECTION", false},
    {HTTP, "HTTP", true},
    {REMOTE_TELNET_SERVER, "REMOTE_TELNET_SERVER", true},
    {REMOTE_TELNET_DEVICE, "REMOTE_TELNET_DEVICE", false},
    {REMOTE_WEB_SERVER, "REMOTE_WEB_SERVER", true},
};
static_assert(sizeof(k_types) / sizeof(k_types[0]) == CONNECTION_TYPE_COUNT, "one row per type");

static const char *const k_status_names[] = {"DISCONNECTED", "CONNECTED", "PENDING"};

#define TILDES_42 "~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~"
static const char k_table_header[] = TILDES_42 " conn info " TILDES_42;
static const char k_table_footer[] = TILDES_42 "~~~~~~~~~~~" TILDES_42;
static_assert(sizeof(k_table_footer) == 95 + 1, "the table's width");

static bool is_type(uint32_t type)
{
    if (type < CONNECTION_TYPE_COUNT)
        return true;
    log_warn("Unknown type: %d", (int)type);
    return false;
}

const char *conn_type_name(uint32_t type)
{
    return is_type(type) ? k_types[type].name : "Unknown type";
}

static const char *status_name(uint32_t status)
{
    if (status < sizeof(k_status_names) / sizeof(k_status_names[0]))
        return k_status_names[status];
    log_warn("Unknown status: %d", (int)status);
    return "Unknown status";
}

void conn_print_all(void)
{
    ConnectionInfo entries[CONNECTION_TYPE_COUNT];
    pthread_mutex_lock(&s_mutex);
    for (uint32_t i = 0; i < CONNECTION_TYPE_COUNT; i++)
        entries[i] = s_entries[i];
    pthread_mutex_unlock(&s_mutex);

    log_debug("%s", k_table_header);
    for (uint32_t i = 0; i < CONNECTION_TYPE_COUNT; i++) {
        const SocketConn *conn = &entries[i].conn;
        log_info("CONN[%d] Type: %-24s, Status: %s(%d), Socket_fd: %d, IP: %s, Port: %s, SSL: %d", (int)i,
                 k_types[i].name, status_name(entries[i].status), (int)entries[i].status, conn->socket_fd,
                 conn->remote_ip, conn->remote_port, conn->ssl ? 1 : 0);
    }
    log_debug("%s", k_table_footer);
}

// Empties the entry except for its texts; the caller closes what it held.
static ConnectionInfo entry_take_locked(ConnectionInfo *entry)
{
    ConnectionInfo taken = *entry;
    entry->status = DISCONNECTED;
    entry->conn.remote_addr = nullptr;
    entry->conn.ssl = nullptr;
    entry->conn.ref = nullptr;
    if (entry->conn.socket_fd > 0)
        entry->conn.socket_fd = -1;
    return taken;
}

// Logs the removal; shuts the connection now, frees it with the last reference.
static void close_taken(ConnectionType type, ConnectionInfo *taken, int print)
{
    SocketConn *conn = &taken->conn;
    ConnRef *ref = conn->ref;
    if (conn->socket_fd > 0) {
        if (!ref) // from conn_note_failed: a socket that was never registered
            ref = conn_ref_new(conn);
        log_info("Shutdown and close socket: %d", conn->socket_fd);
        if (ref && conn_ref_shut(ref) != 0)
            log_error("setsockopt SO_LINGER on socket: %d failed!", conn->socket_fd);
    }
    if (conn->ssl)
        tls_log_deinit();
    log_info("Connection type: %s(%d), peer IP: %s, Port: %s has been removed,", k_types[type].name, (int)type,
             conn->remote_ip, conn->remote_port);
    if (print)
        conn_print_all();
    conn_ref_release(ref);
}

enum CloseWhen { CLOSE_ANY, CLOSE_CONNECTED };

// Closes the entry, or with ref only if it is still that connection.
static void close_entry(ConnectionType type, CloseWhen when, const ConnRef *ref, int print)
{
    ConnectionInfo *entry = &s_entries[type];
    ConnectionInfo taken = {};
    pthread_mutex_lock(&s_mutex);
    bool matches = (when == CLOSE_ANY || entry->status == CONNECTED) && (!ref || entry->conn.ref == ref);
    if (matches)
        taken = entry_take_locked(entry);
    pthread_mutex_unlock(&s_mutex);
    if (matches)
        close_taken(type, &taken, print);
}

static void close_connected(ConnectionType type, int print)
{
    close_entry(type, CLOSE_CONNECTED, nullptr, print);
}

enum PublishResult { PUBLISH_REFUSED = -1, PUBLISH_CLOSED = 0, PUBLISH_DONE = 1 };

// Gives conn its TLS session. PUBLISH_DONE, or why it must not be used. After a failed handshake the connection goes on
// in plain text, but not when [nm_tls] has keys. One that was cut short says nothing about NM.
static PublishResult session_begin(ConnectionType type, SocketConn *conn, ConnSecurity security, const char *host)
{
    if (security == CONN_PLAIN)
        return k_types[type].to_nm && tls_plain_is_refused(host) ? PUBLISH_REFUSED : PUBLISH_DONE;
    conn->ssl = tls_init(conn->socket_fd, host);
    if (conn->ssl)
        return PUBLISH_DONE;
    switch (errno) {
    case EACCES:
        return PUBLISH_REFUSED;
    case ECANCELED:
        return PUBLISH_CLOSED;
    default:
        return PUBLISH_DONE;
    }
}

// Makes conn the entry.
static PublishResult entry_publish(ConnectionType type, SocketConn conn, ConnSecurity security, const char *host,
                                   int print)
{
    PublishResult begun = session_begin(type, &conn, security, host);
    if (begun != PUBLISH_DONE) {
        socket_close_private(&conn);
        return begun;
    }
    conn.ref = conn_ref_new(&conn);
    if (!conn.ref) {
        socket_close_private(&conn);
        return PUBLISH_CLOSED;
    }
    ConnectionInfo *entry = &s_entries[type];
    pthread_mutex_lock(&s_mutex);
    ConnectionInfo taken = entry_take_locked(entry);
    entry->conn = conn;
    entry->security = security;
    (void)text_set(entry->host, host);
    entry->status = CONNECTED;
    pthread_mutex_unlock(&s_mutex);
    if (taken.status == CONNECTED)
        close_taken(type, &taken, 1); // another thread was quicker
    log_info("Connection type: %s(%d) has been added, socket: %d.", k_types[type].name, (int)type, conn.socket_fd);
    if (print)
        conn_print_all();
    return PUBLISH_DONE;
}

int conn_add_as(ConnectionType type, SocketConn conn, ConnSecurity security, const char *host, int print)
{
    if (!is_type(type)) {
        socket_close_private(&conn);
        return 1;
    }
    close_connected(type, 1);
    return entry_publish(type, conn, security, host ? host : conn.remote_ip, print) != PUBLISH_REFUSED;
}

ConnSecurity conn_security_wanted(ConnectionType type)
{
    bool encrypted = type < CONNECTION_TYPE_COUNT && k_types[type].to_nm && plugin_info_nm_is_https();
    return encrypted ? CONN_TLS : CONN_PLAIN;
}

int conn_add(ConnectionType type, SocketConn conn, int print)
{
    (void)conn_add_as(type, conn, conn_security_wanted(type), nullptr, print);
    return 1;
}

void conn_note_failed(ConnectionType type, const SocketConn *conn)
{
    if (!is_type(type))
        return;
    pthread_mutex_lock(&s_mutex);
    ConnectionInfo *entry = &s_entries[type];
    if (entry->status != CONNECTED) {
        entry->conn = *conn;
        entry->conn.remote_addr = nullptr;
        entry->conn.ssl = nullptr;
        entry->conn.ref = nullptr;
    }
    pthread_mutex_unlock(&s_mutex);
}

void conn_remove(ConnectionType type, int print)
{
    if (is_type(type))
        close_entry(type, CLOSE_ANY, nullptr, print);
}

int conn_remove_if_connected(ConnectionType type, int print)
{
    if (is_type(type))
        close_connected(type, print);
    return 1;
}

static void remove_all_from(uint32_t first)
{
    conn_print_all();
    for (uint32_t type = first; type < CONNECTION_TYPE_COUNT; type++)
        close_connected(k_types[type].type, 0);
    conn_print_all();
}

void conn_remove_all(void)
{
    remove_all_from(DEV_TCP);
}

void conn_remove_all_but_device(void)
{
    remove_all_from(DEV_TCP + 1);
}

// The entry as it stands; with a reference it is held.
static ConnectionInfo entry_hold(ConnectionType type)
{
    pthread_mutex_lock(&s_mutex);
    ConnectionInfo copy = s_entries[type];
    conn_ref_hold(copy.conn.ref);
    pthread_mutex_unlock(&s_mutex);
    return copy;
}

bool conn_hold(ConnectionType type, SocketConn *copy)
{
    *copy = {};
    copy->socket_fd = -1;
    if (!is_type(type))
        return false;
    ConnectionInfo entry = entry_hold(type);
    *copy = entry.conn;
    if (entry.status == CONNECTED)
        return true;
    conn_drop(copy);
    return false;
}

void conn_drop(SocketConn *copy)
{
    conn_ref_release(copy->ref);
    copy->socket_fd = -1;
    copy->remote_addr = nullptr;
    copy->ssl = nullptr;
    copy->ref = nullptr;
}

bool conn_is_current(ConnectionType type, const SocketConn *copy)
{
    if (!is_type(type))
        return false;
    pthread_mutex_lock(&s_mutex);
    const ConnectionInfo *entry = &s_entries[type];
    bool is_current = entry->status == CONNECTED && copy->ref && entry->conn.ref == copy->ref;
    pthread_mutex_unlock(&s_mutex);
    return is_current;
}

void conn_remove_if_current(ConnectionType type, const SocketConn *copy, int print)
{
    if (is_type(type) && copy->ref)
        close_entry(type, CLOSE_CONNECTED, copy->ref, print);
}

// The entry has a connection to test; else the log says why not.
static bool is_testable(const ConnectionInfo *entry)
{
    const SocketConn *conn = &entry->conn;
    if (conn->socket_fd < 1) {
        log_debug("TCP connection: %s:%s, socket: %d is not valid.", conn->remote_ip, conn->remote_port,
                  conn->socket_fd);
        return false;
    }
    if (entry->status != CONNECTED) {
        log_debug("TCP connection: %s:%s, socket: %d is of status: %d.", conn->remote_ip, conn->remote_port,
                  conn->socket_fd, (int)entry->status);
        return false;
    }
    return true;
}

// state is that of a held connection; a bad one is logged.
static bool is_established(const SocketConn *conn, int state)
{
    if (state == TCP_STATE_ESTABLISHED)
        return true;
    if (state == TCP_STATE_TIMEOUT)
        log_info("TCP connection: %s:%s, socket: %d, selecting timeout.", conn->remote_ip, conn->remote_port,
                 conn->socket_fd);
    else
        log_info("TCP connection: %s:%s, socket: %d, status: %d is not connected: %d.", conn->remote_ip,
                 conn->remote_port, conn->socket_fd, state, TCP_STATE_ESTABLISHED);
    return false;
}

// A broken connection is shut down: it looks established only when its test was cut short.
static bool is_broken(const SocketConn *conn)
{
    return conn->ref && conn->ref->broken;
}

int tcp_check_conn(ConnectionType type)
{
    if (!is_type(type))
        return 0;
    ConnectionInfo entry = entry_hold(type);
    bool is_alive = is_testable(&entry) && is_established(&entry.conn, tcp_state_get(entry.conn.socket_fd)) &&
                    !is_broken(&entry.conn);
    conn_drop(&entry.conn);
    return is_alive;
}

// Ends a liveness test: closes the entry that was held before it if the test failed, but not a connection that another
// thread registered meanwhile. Returns whether the type has a usable connection.
static bool check_end(ConnectionType type, ConnectionInfo *entry, bool is_alive)
{
    bool is_usable = is_alive && conn_is_connected(type);
    if (!is_usable)
        conn_remove_if_current(type, &entry->conn, 1);
    conn_drop(&entry->conn);
    return is_usable;
}

int conn_check(ConnectionType type)
{
    if (!is_type(type))
        return 0;
    if (type == NM_UDP_DETECTION) {
        close_connected(type, 1);
        return 0;
    }
    ConnectionInfo entry = entry_hold(type);
    return check_end(type, &entry, tcp_check_conn(type));
}

// tcp_state_get without its wait: a full send buffer is judged by its progress.
static int state_by_progress(ConnectionType type, const SocketConn *conn, SendProgress *progress)
{
    bool stuck = conn_is_stuck(conn, progress, k_types[type].to_nm ? NM_PATIENCE_MS : DEVICE_PATIENCE_MS);
    if (wait_fd(conn->socket_fd, POLLIN | POLLOUT, 0) != WAIT_READY)
        return stuck ? TCP_STATE_TIMEOUT : TCP_STATE_ESTABLISHED;
    int state = tcp_state_get(conn->socket_fd);
    return stuck && state == TCP_STATE_ESTABLISHED ? TCP_STATE_TIMEOUT : state;
}

bool conn_check_progress(ConnectionType type, SendProgress *progress)
{
    if (!is_type(type))
        return false;
    ConnectionInfo entry = entry_hold(type);
    bool is_alive = is_testable(&entry) &&
                    is_established(&entry.conn, state_by_progress(type, &entry.conn, progress)) &&
                    !is_broken(&entry.conn);
    return check_end(type, &entry, is_alive);
}

bool conn_is_connected(ConnectionType type)
{
    if (!is_type(type))
        return false;
    pthread_mutex_lock(&s_mutex);
    bool connected = s_entries[type].status == CONNECTED;
    pthread_mutex_unlock(&s_mutex);
    return connected;
}

int conn_reconnect(ConnectionType type)
{
    if (!is_type(type))
        return 0;
    ConnectionInfo last = conn_info_get(type);
    close_connected(type, 0);
    SocketConn conn =
        tcp_connect(last.conn.remote_ip, last.conn.remote_port, last.conn.local_ip, last.conn.local_port, 0, 0);
    if (conn.socket_fd < 1)
        return 0;
    close_connected(type, 1);
    return entry_publish(type, conn, last.security, last.host, 1) == PUBLISH_DONE;
}

int poll_conn_readable(ConnectionType type, int timeout_ms)
{
    SocketConn conn;
    (void)conn_hold(type, &conn);
    int readable = conn_readable(&conn, timeout_ms);
    conn_drop(&conn);
    return readable;
}

ConnectionInfo conn_info_get(ConnectionType type)
{
    ConnectionInfo info = {};
    if (!is_type(type))
        return info;
    pthread_mutex_lock(&s_mutex);
    info = s_entries[type];
    pthread_mutex_unlock(&s_mutex);
    info.conn.socket_fd = -1;
    info.conn.remote_addr = nullptr;
    info.conn.ssl = nullptr;
    info.conn.ref = nullptr;
    return info;
}
