// heartbeat.h - telling NM that the device is alive: over UDP first, and over HTTP when UDP stays silent.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "runtime/timer.h"
#include "transport/nm_post.h"

// What NM's answer over HTTP leads to (a HeartbeatAnswered of nm_post.h): counts, restarts the bring-up, has a
// handshake run.
int heartbeat_answered(const char *answer, HeartbeatAfter *after);

// Timer callback, every period: tests the device link, sends the heartbeat. Exchanges do not overlap: an expiry that
// finds one running tests the link only.
void udp_handler(PluginTimer *timer);

// Handler of the NM command "trigger": changes the heartbeat period.
int udp_detection_interval_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// How the heartbeats fare, for the state that others see. Any thread.
struct HeartbeatFacts {
    bool is_over_http;
    uint32_t misses;     // in a row, on the channel in use
    int64_t answered_ms; // NM's last answer, on the monotonic clock; 0: none yet
};
void heartbeat_facts_get(HeartbeatFacts *facts);

// UDP first again, and both counts of missing answers to 0; start of every bring-up pass.
void heartbeat_reset(void);
