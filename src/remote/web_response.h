// web_response.h - a remote-web tunnel's direction from the device to NM. A thread of its own reads the slots'
// connections and sends the bytes on as frames, one per slot in 10 ms; no slot waits for another. The thread ends with
// its opening of the pool. It works only while the NM connection is the one that carried the authentication; else the
// bytes stay in the device sockets. So no frame precedes the authentication, and a thread that ends late does not touch
// the next tunnel.
#pragma once

#include <stdint.h>

// Starts the thread for an opening of the pool. 0, or -1 (logged).
int web_response_start(uint32_t generation);

// Such a thread is running.
bool web_response_running(void);
