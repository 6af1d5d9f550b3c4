// dev_msg_recv.h - the byte stream from the device: main appends what arrives, the thread dev_msg_handle takes out one
// frame at a time. The buffers are made once, by the first bring-up pass that gets there, and live as long as the
// process.
#pragma once

#include <stdint.h>

// Creates the thread's doorbell; start-up. 0, or -1 without a descriptor (errno set).
int dev_msg_recv_init(void);

// Allocates the receive buffer and the message area by the sizes in g_plugin_info. 1, or 0 (logged). Main thread.
int dev_msg_buffer_init(void);
bool dev_msg_has_buffer(void);

// Frees both; end of the process, after dev_msg_handle has left.
void free_device_buffers(void);

// One receive step, main thread: waits up to 200 ms for the device's bytes.
void dev_msg_recv(void);

// One cycle of the thread dev_msg_handle: sleeps until bytes are there, hands at most one complete message to
// dev_msg_dispatch, pauses 5 ms.
void dev_msg_handle_turn(void);
