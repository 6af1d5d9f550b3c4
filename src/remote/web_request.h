// web_request.h - the records of a remote-web tunnel: ten records gather each msg_id's request bytes until NM falls
// quiet, then they go on to the msg_id's device connection (web_upload).
// Records belong to whoever holds the tunnel's command lock. Blocks: as web_upload.
#pragma once

#include <stdint.h>

#include "remote/web_frame.h"

// Takes the memory (once) and empties the records. 0, or -1 (logged).
int web_request_open(void);

// Takes one frame of NM; header->length bytes of payload. 0; 1 when the msg_id's record has no room for it (nothing was
// stored: flush and call again); -1 without a header (logged).
int web_request_handle(const WebHeader *header, const uint8_t *payload);

// Forwards the bytes of each record, in the order of the records, then carries out its destroy.
void web_request_flush(void);

// Milliseconds until the records have to be flushed although NM does not fall quiet; INT_MAX when they hold nothing.
int web_request_due_ms(void);
