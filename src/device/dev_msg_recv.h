// dev_msg_recv.h - the byte stream from the device: main appends what arrives, dev_msg_handle cuts one frame at a time.
// Buffers are made once, by the first bring-up pass that gets there, and live as long as the process.
#pragma once

#include <stdint.h>

// Allocates both areas by the sizes in g_plugin_info. 1, or 0 (logged). Main thread.
int dev_msg_buffer_init(void);

// 1 when the areas exist.
int dev_msg_buffer_ready(void);

// Frees both areas; end of the process, after dev_msg_handle has left.
void free_device_buffers(void);

// One receive step, main thread: waits up to 200 ms for the device's bytes.
void dev_msg_recv(void);

// Hands at most one complete message to dev_msg_dispatch. Thread dev_msg_handle only.
void dev_msg_get(void);

// One cycle of the thread dev_msg_handle: sleeps until bytes are there, dev_msg_get, 5 ms pause.
void dev_msg_handle_turn(void);

// Creates dev_msg_mutex and the thread's doorbell; nm_msg_table_init calls it. 0, or -1 without a descriptor (errno
// set).
int dev_msg_recv_init(void);
