// dev_msg_send.h - frames to the device's local agent: a 4-byte little-endian length, then the text.
// Any thread; frames of several threads never mix.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "transport/socket.h"

constexpr size_t DEV_FRAME_HEADER_SIZE = 4;
constexpr size_t DEV_TEXT_SIZE = 507; // most messages to the device are truncated to one byte less

// Sends one frame on the device link as it is now (no liveness test). tcp_send's result; -1 without a link.
int dev_frame_send(const void *text, uint32_t len);

// Sends a text of the given type and logs it.
void dev_text_send(const char *type, const char *text);

// Sends {type, protocol version, key: object_text}, truncated to DEV_TEXT_SIZE - 1, and logs it. Warns without a device
// link.
void dev_object_send(const char *type, const char *key, const char *object_text);
