// conn_registry.h - the agent's connections, at most one of each type, referred to by type everywhere.
// The table has one short lock for its own state, never held over a connect, handshake, poll, close or look-up. Whoever
// polls, reads or writes does so on a held copy (conn_hold, conn_drop). Closing takes the entry out of the table and
// shuts the connection down at once; its resources are freed with the last reference.
// Any thread. Types above REMOTE_WEB_SERVER are warned about and touch nothing.
#pragma once

#include <stdint.h>

#include "transport/liveness.h"
#include "transport/socket.h"

enum ConnectionType : uint32_t {
    DEV_TCP = 0,              // device's local agent, never TLS
    NM_UDP_DETECTION = 1,     // NM's detection server
    HTTP = 2,                 // NM, kept connection
    REMOTE_TELNET_SERVER = 3, // remote telnet, NM side
    REMOTE_TELNET_DEVICE = 4, // remote telnet, device side, never TLS
    REMOTE_WEB_SERVER = 5,    // remote web, NM side
};

enum ConnectionStatus : uint32_t { DISCONNECTED = 0, CONNECTED = 1, PENDING = 2 };

enum ConnSecurity : uint8_t { CONN_PLAIN = 0, CONN_TLS = 1 };

// One entry of the table.
struct ConnectionInfo {
    ConnectionStatus status;
    ConnSecurity security;     // what it was added as; after a failed handshake the connection is plain all the same
    char host[HOST_TEXT_SIZE]; // whose certificate NM's side has to show
    SocketConn conn;           // owned through conn.ref; its texts stay after a removal
};

// Display name, static; "Unknown type" with a warning for other numbers.
const char *conn_type_name(uint32_t type);

// Logs the table.
void conn_print_all(void);

// Makes conn (a fresh connection that the caller owns) the entry of type; an entry that is CONNECTED is closed first.
// NM-side TCP types get a TLS session when NM's method is https; a failed handshake leaves plain text unless [nm_tls]
// has keys; then, or when it was cut short, conn is closed and nothing registered. The entry and its status appear in
// one step after the handshake. Always 1; ownership passes in any case.
int conn_add(ConnectionType type, SocketConn conn, int print);

// What conn_add decides, by NM's method in force.
ConnSecurity conn_security_wanted(ConnectionType type);

// conn_add for callers that read NM's port and method together: the method now in force may belong to another port.
// CONN_TLS is for NM-side types. host: as the caller named it, for the certificate; null: conn's remote address. 0 when
// the connection was refused for what [nm_tls] asks (logged, closed), else 1.
int conn_add_as(ConnectionType type, SocketConn conn, ConnSecurity security, const char *host, int print);

// Keeps the texts and the descriptor (-1 or 0) of a failed connect in an entry that is not CONNECTED.
void conn_note_failed(ConnectionType type, const SocketConn *conn);

// Closes the entry whatever its status / only when it is CONNECTED (always 1).
void conn_remove(ConnectionType type, int print);
int conn_remove_if_connected(ConnectionType type, int print);

// Closes every CONNECTED entry, the device link included / but the device link.
void conn_remove_all(void);
void conn_remove_all_but_device(void);

// 1 when the entry is CONNECTED and still usable, else 0; a CONNECTED entry that is dead is closed (if it still is the
// connection that was tested). A liveness test, up to 2 s. NM_UDP_DETECTION has none: it is closed and the answer is 0.
int conn_check(ConnectionType type);

// conn_check for a connection that a relay sends on: never waits. A full send buffer alone proves nothing; the
// connection is dead when its peer is stuck (liveness.h).
bool conn_check_progress(ConnectionType type, SendProgress *progress);

// The test of conn_check, which closes nothing. 1 or 0, a failure is logged.
int tcp_check_conn(ConnectionType type);

// The entry's status is CONNECTED: no test, no wait. What senders ask.
bool conn_is_connected(ConnectionType type);

// Connects again to the peer of the entry, texts, local side and security as before, default buffers. 1 when
// registered, else 0.
int conn_reconnect(ConnectionType type);

// 1 when data can be read on the entry's connection within timeout_ms (conn_readable on a held copy), else 0.
int poll_conn_readable(ConnectionType type, int timeout_ms);

// Copies the entry's connection and keeps it alive until conn_drop. True when the entry is CONNECTED; else the copy has
// the texts of the last connection and no socket. Call conn_drop in both cases.
bool conn_hold(ConnectionType type, SocketConn *copy);
void conn_drop(SocketConn *copy);

// copy (held) is still the CONNECTED entry of type.
bool conn_is_current(ConnectionType type, const SocketConn *copy);

// Closes the entry, with the log lines of a removal, only if it is still the connection of copy (held).
void conn_remove_if_current(ConnectionType type, const SocketConn *copy, int print);

// Status, security and texts of an entry, without its socket and without a reference.
ConnectionInfo conn_info_get(ConnectionType type);
