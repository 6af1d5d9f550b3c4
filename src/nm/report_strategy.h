// report_strategy.h - NM's "device-status" command: how often the system status is reported, when and how the service
// status is, and passing the strategy on to the device. Runs on the thread that made the handshake.
#pragma once

#include <stdint.h>

int nm_dev_status_control_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
