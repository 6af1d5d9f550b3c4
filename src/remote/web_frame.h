// web_frame.h - the frames of the remote-web tunnel: a 17-byte header (magic, payload length, type, msg_id), then the
// payload. Any thread; no state.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "transport/socket.h"

constexpr size_t WEB_HEADER_SIZE = 17;
constexpr size_t WEB_ID_SIZE = 8;

enum WebMsgType : uint8_t {
    MSG_TYPE_AUTH_REQ = 0,    // never sent
    MSG_TYPE_AUTH_RESP = 1,   // never sent
    MSG_TYPE_REQ = 2,         // NM to device: bytes of a browser
    MSG_TYPE_RESP = 3,        // device to NM: bytes of the web server
    MSG_TYPE_DEV_DESTROY = 4, // to NM: the device side of the msg_id is closed
    MSG_TYPE_WEB_DESTROY = 5, // from NM: the browser side of the msg_id is closed
};

struct WebHeader {
    uint32_t length; // of the payload
    uint8_t type;    // WebMsgType, or whatever NM sent
    uint8_t msg_id[WEB_ID_SIZE];
};

// Reads 17 bytes; the magic is not checked.
WebHeader web_header_get(const uint8_t *bytes);

bool web_is_same_id(const uint8_t *a, const uint8_t *b);

// Sends one frame on nm (held): header and payload as one unit. 0; or -1 for a bad argument (logged), or when nm did
// not accept all of it (nm is then shut down). Only MSG_TYPE_RESP needs a payload.
int remote_web_rsp_transmit_privately(const SocketConn *nm, const uint8_t *http_rsp, uint32_t http_rsp_len,
                                      const uint8_t *msg_id, uint8_t type);
