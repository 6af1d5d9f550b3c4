// web_upload.h - a remote-web tunnel's direction from NM to the device, behind the records: each msg_id's bytes go to
// its own device connection as fast as the device takes them, and no msg_id waits for another one. Bytes that a device
// does not take at once wait in the queue of its slot; a msg_id for which no slot is free waits in a list, in the order
// of arrival. A device that takes none of its bytes is given up (conn_is_stuck).
// After bytes of a msg_id were lost, what follows within 500 ms is dropped too, so that the middle of a request never
// reaches the device as a request of its own.
// Everything belongs to whoever holds the tunnel's command lock. Blocks: 2 s at most in a connect to the device.
#pragma once

#include <stdint.h>

#include "remote/web_frame.h"
#include "transport/conn_wait.h"

constexpr int WEB_UPLOAD_WANTS = 10; // one per slot

// Sends the bytes to the device connection of the msg_id, which is made when there is none. Null or empty arguments are
// logged and refused.
void web_upload_forward(const uint8_t *msg_id, const uint8_t *bytes, uint32_t len);

// NM closed the msg_id: its slot, or the one that it still waits for, is ended behind the bytes that the device has yet
// to take. Does nothing for a msg_id without either. NM may use the msg_id again at once.
void web_upload_destroy(const uint8_t *msg_id);

// Sends what devices have room for, ends slots that are stuck, gives free slots to the msg_ids that wait; while any
// waits, a log line every 100 ms says so. Waits for nothing but a connect.
void web_upload_turn(void);

// What the uploads wait for. Fills at most WEB_UPLOAD_WANTS rows and returns their number; valid until the next call of
// this module.
int web_upload_wants(ConnWant *wants);

// The queues together hold so much that no more is to be read from NM.
bool web_upload_is_full(void);

// Drops everything; the tunnel has ended.
void web_upload_close(void);
