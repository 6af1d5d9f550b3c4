// activation.h - activating the device with NM, the redirection that NM may answer with, and the handshake that fetches
// NM's commands. Requests go out on connections of their own; 5 s at most for an answer.
#pragma once

#include <cjson/cJSON.h>

// 0 when active and the detection server is known; non-zero (logged, DMA cause set) otherwise. Main thread.
int device_activate(void);

// Posts the handshake and runs the command in NM's answer, on the calling thread. Any thread; at most 8 at once: one
// more calls off the oldest that waits for NM's answer. When all 8 are running their commands it does nothing, and NM
// says "ack" again.
void handshake_send(void);

// Takes the first "NMS" entry of the answer's redirection as the new NM and forwards "result" to the device in any
// case.
void redirection_handle(const cJSON *root);

// Tells the device about a redirection; result_text is printed JSON. Warns without a device link.
void redirection_to_device(const char *result_text);
