// remote_telnet.h - NM's access to the device's telnet service: after authentication and "INIT" a plain byte relay.
// Threads: remote_telnet (relay: remote_telnet_turn), the threads that carry NM's commands (set-up, stop).
#pragma once

#include <stdint.h>

// Handler of the NM command "remote-telnet". 0 when the tunnel stands or was stopped, else -1 (logged).
int remote_telnet_req_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// One relay step; 0, or -1 after a broken tunnel.
int remote_telnet_data_handle(void);

// One cycle of the thread remote_telnet: while the tunnel stands, one step and a pause of 5 ms; else waits until it
// opens.
void remote_telnet_turn(void);

// Creates the thread's doorbell; start-up, before the threads. 0, or -1 without a descriptor (errno set).
int remote_telnet_init(void);
