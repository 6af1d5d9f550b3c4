// web_response.h - a remote-web tunnel's way from the device to NM: a thread of its own reads the slots' connections
// and sends what they bring as frames, one per slot in 10 ms, no slot waiting for another. It lives as long as its
// opening of the pool, and works only while the NM connection is the one that carried the authentication; else the
// bytes stay in the device sockets. So no frame precedes the authentication, and a thread that is late in leaving
// reaches no later tunnel.
#pragma once

#include <stdint.h>

// Starts the thread for an opening of the pool. 0, or -1 (logged).
int web_response_start(uint32_t generation);

// 1 while such a thread lives.
int web_response_running(void);
