// nm_sign.h - the four identity headers of every request to NM, and posting a device's answer with them.
// Any thread; nm_sign_init main thread, once per bring-up pass.
#pragma once

#include <stddef.h>

#include "transport/http_client.h"

constexpr int NM_HEADER_COUNT = 4;

// Computes the signature of the serial number and stores the four header values. Returns the length of the last one.
int nm_sign_init(void);

// Fills the slots: secretKey, pver, deviceSn, ptype. Returns NM_HEADER_COUNT.
int nm_fill_headers(char (&headers)[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE]);

// Posts to NM's path with the four headers on a connection of its own. As http_request, without its own lines.
int nm_http_post(const char *path, const char *body, char *rsp, size_t rsp_cap);

// Posts a device's message and logs both ways. rsp has 10240 bytes, zeroed. 1 when NM answered (its length in
// *rsp_len), else 0.
int nm_send_device_response(const char *path, const char *msg, char *rsp, size_t rsp_cap, int *rsp_len);
