// nm_wait.h - the call-off of everything that waits for NM.
// A TLS handshake that NM does not answer has no time-out. When NM is given up for another one, or the bring-up starts
// again, whatever still waits for the last NM has to end.
#pragma once

#include <atomic>
#include <stdint.h>

#include "runtime/wait.h"

// Rises with every restart of the bring-up, with a changed identity and with a new address, port or method of NM. Work
// that waits for NM has it as its call-off.
extern std::atomic<uint32_t> g_restart_count;

// From here on the calling thread's waits end with the NM of this moment. Returns the call-off that was in force, to be
// put back with wait_call_off_set.
CallOff nm_wait_begin(void);

// Calls off what waits for the last NM, the calling thread's own work excepted. Any thread.
void nm_waits_call_off(void);
