// activation.h - activating the device with NM, the redirection that NM may answer with, and the handshake that fetches
// NM's commands. Requests go out on connections of their own; 5 s at most for an answer.
#pragma once

// 0 when active and the detection server is known; non-zero (logged, DMA cause set) otherwise. Main thread.
int device_activate(void);

// Posts the handshake and runs the command in NM's answer, on the calling thread. Any thread; at most 8 at once: one
// more calls off the oldest that waits for NM's answer. When all 8 are running their commands it does nothing, and NM
// says "ack" again.
void handshake_send(void);
