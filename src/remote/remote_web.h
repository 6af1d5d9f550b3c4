// remote_web.h - NM's access to the device's web server: framed HTTP bytes on one connection to NM, one device
// connection per msg_id, at most 10. Threads: remote_web (NM side: remote_web_turn), remote_web_msg_handle_thread
// (device side, lives with a tunnel), the threads that carry NM's commands (set-up, stop).
#pragma once

#include <stdint.h>

// Handler of the NM command "remote-web". -1 for a bad request or a failed authentication send, else 0.
int remote_web_req_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// One cycle of the thread remote_web: while the tunnel runs, one step and a pause of 1 ms; else waits until it opens.
void remote_web_turn(void);

// Creates the thread's doorbell; start-up, before the threads. 0, or -1 without a descriptor (errno set).
int remote_web_init(void);

// The device-side thread is running; for the closing sequence.
bool remote_web_device_thread_running(void);
