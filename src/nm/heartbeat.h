// heartbeat.h - telling NM that the device is alive, over UDP first and over HTTP when UDP stays silent, and the one
// path by which every periodic report reaches NM.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "runtime/timer.h"

enum ReportType : uint32_t {
    REPORT_HEARTBEAT = 0,
    REPORT_RUN_STATUS = 1,
    REPORT_WORKING_SERVICES = 2,
    REPORT_CALL_HISTORY = 3,
};
constexpr uint32_t REPORT_TYPE_COUNT = 4;

// Posts a report on the kept connection, one at a time. 0; -1 on failure (a heartbeat: unless NM's answer was one of
// its three words). A heartbeat may run a handshake (after the lock) or restart the bring-up. Any thread but main.
int tx_nms_message(uint32_t type, const char *body, size_t len);

// UDP first, then HTTP unless UDP was answered.
void post_message_to_nm(uint32_t type, const char *body, size_t len);

// Timer callback, every period: device link test, heartbeat. Exchanges do not overlap: an expiry that finds one running
// does the link test only.
void udp_handler(PluginTimer *timer);

// Handler of the NM command "trigger": changes the heartbeat period.
int udp_detection_interval_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// http_mode and both counts to 0; start of every bring-up pass.
void heartbeat_reset(void);
