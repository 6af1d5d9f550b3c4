// http_client.h - HTTP/1.1 requests to NM, plain or TLS: one request, one answer, one JSON object out of it.
// Owns nothing between calls; the kept connection is the registry's HTTP entry. The request grows with its body.
// Threads: http_request any; http_post_nm one at a time (callers hold g_nm_post_mutex). Blocks for an answer 5 s or 2 s
// at most, beside look-up (unbounded; http_request only), connect (2 s) and TLS handshake. A stop or call-off ends
// every wait but the look-up.
#pragma once

#include <stddef.h>
#include <stdint.h>

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

// Posts body (not empty) to path of NM on the kept connection, opening it when it is missing, dead, or was opened to
// another NM. What is left of earlier answers is read away before the request is sent. Result as http_request.
// A time-out leaves the connection registered.
int http_post_nm(const char *path, const char *body, char *rsp, size_t rsp_cap);

// Cuts the JSON object out of an answer. Its length with a fresh copy (caller frees) in *json; 0 for a 200 without a
// usable object, -1 (logged) for a missing or non-200 status line, *json null in both cases.
int http_parse_response(const char *text, char **json);

// Resolves and connects; socket_fd below 1 on failure (logged). The caller owns the socket; no address list is kept.
SocketConn http_tcpclient_create(const char *host, const char *port);

// The request's bytes: fresh text (caller frees) and its length, null without memory (logged). For both requests above.
char *http_build_request(const char *method, const char *path, const char *host, const char *port,
                         const char (*headers)[HTTP_HEADER_SLOT_SIZE], int header_count, const char *body, size_t *len);
