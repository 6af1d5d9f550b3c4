// dev_msg_handle_internal.h - for tests only.
#pragma once

#include <stdint.h>

// Acknowledges a message of the given type to the device by NM's response (null: none). 0 when an ack was sent, else -1
// (logged).
int dev_msg_ack(const char *sessionid, int32_t msg_id, const char *type, const char *response, int32_t response_len);
