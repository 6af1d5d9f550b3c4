// web_request.h - a remote-web tunnel's way from NM to the device: ten records gather each msg_id's request bytes until
// NM falls quiet, then they go out on the msg_id's device connection.
// Records belong to whoever holds the tunnel's command lock. Blocks: connect 2 s, a device that takes no byte 2 s, the
// wait for a free slot without limit; all end when the tunnel is called off.
#pragma once

#include <stdint.h>

#include "remote/web_frame.h"

constexpr uint32_t WEB_REQUEST_CAP = 16384; // bytes that one record holds

// Takes the memory (once) and empties the records. 0, or -1 (logged).
int web_request_open(void);

// Takes one frame of NM; header->length bytes of payload. 0; 1 when the msg_id's record has no room for it (nothing was
// taken: flush and give it again); -1 without a header (logged).
int web_request_handle(const WebHeader *header, const uint8_t *payload);

// Forwards what the records hold, in their order, and carries out NM's destroys.
void web_request_flush(void);
