// http_client.h - HTTP/1.1 requests to NM, plain or TLS: one request, one answer, one JSON object out of it.
// Keeps no state. The request grows with its body; the answer is what one receive brings.
// Any thread. A request takes at most 5 s for its answer, 2 s for connecting, and what the name look-up and the TLS
// handshake take, which have no limit but handshake_timeout_s. A stop or call-off cuts every wait but the look-up
// short.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "runtime/plugin_info.h"
#include "transport/socket.h"

constexpr size_t HTTP_HEADER_SLOT_SIZE = 512; // one header line, without its line end

// One request on a connection of its own, closed on every path. method: "GET" or "POST"; headers may be null with count
// 0; body may be null. rsp (zeroed by the caller) receives the answer's JSON object, NUL-ended, at most rsp_cap - 1
// bytes.
// Returns its length; 0 for a 200 without JSON; -1 (logged) on any failure.
int http_request(const char *host, const char *port, const char *path, const char *method,
                 const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, char *rsp,
                 size_t rsp_cap);

// http_request with "POST" to the NM of these settings: method, address and port belong together.
int http_post_private(const PluginInfo *nm, const char *path, const char (*headers)[HTTP_HEADER_SLOT_SIZE],
                      int header_count, const char *body, char *rsp, size_t rsp_cap);

// Resolves and connects; socket_fd below 1 on failure (logged). The caller owns the socket; no address list is kept.
SocketConn http_tcpclient_create(const char *host, const char *port);

// The steps of a request, for whoever keeps the connection.

// Connects to a dotted address from local_ip ("": any). The caller owns the socket; no address list is kept.
SocketConn http_address_connect(const char *address, const char *port, const char *local_ip);

// The request's bytes: fresh text (caller frees) and its length, null without memory (logged). Arguments as
// http_request.
char *http_build_request(const char *method, const char *path, const char *host, const char *port,
                         const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, size_t *len);

// Sends the request, waits for the answer and receives once. 0 with the receive's result in *received and the raw
// answer in rsp, zeroed before; -1 without an answer (logged, unless the wait was cut short).
int http_exchange(const SocketConn *conn, const char *request, size_t len, int timeout_ms, char *rsp, size_t rsp_cap,
                  int *received);

// Replaces the raw answer in rsp by its JSON object. Result as http_request.
int http_answer_take(char *rsp, size_t rsp_cap);
