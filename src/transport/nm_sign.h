// nm_sign.h - the four identity headers of every request to NM.
// Any thread; nm_sign_init main thread, once per bring-up pass.
#pragma once

#include "runtime/plugin_info.h"
#include "transport/http_client.h"

constexpr int NM_HEADER_COUNT = 4;

// Computes the signature of the serial number and stores the four header values. Returns the length of the last one.
int nm_sign_init(void);

// Fills the slots: secretKey, pver, deviceSn, ptype. Returns NM_HEADER_COUNT.
int nm_fill_headers(char (&headers)[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE]);

// The same from settings that the caller has read.
void nm_headers_fill(const PluginInfo *info, char (&headers)[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE]);
