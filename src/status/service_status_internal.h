// service_status_internal.h - the parts of the service report that tests look at.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "runtime/timer.h"
#include "status/service_status.h"

constexpr size_t SERVICE_READ_SIZE = 8192;   // one byte stays free
constexpr size_t SERVICE_RECORD_SIZE = 4096; // one byte stays free

// What NM's strategy says, and the timer that follows from it.
struct ServiceSettings {
    bool enabled;
    bool timer_running; // also set when the timer could not be started, so that this is not tried 5 times a second
    int32_t mode;       // ServiceReportMode
    int32_t limit_kib;  // size of the file that makes a report due in the delay modes
    PluginTimer timer;
};
ServiceSettings service_settings_get(void);

enum ServiceState : uint32_t { SERVICE_IDLE = 0, SERVICE_REQUESTED = 1, SERVICE_RUNNING = 2 };
ServiceState service_state_get(void);

// Splits what fd yields, up to its end, at each "\r\n\r\n" and hands every record (a text of 1 to 4095 characters) to
// sink in order; 10 ms after each but a last one without a separator. Ends early when the wait is cut short.
typedef void (*ServiceRecordSink)(const char *record, void *arg);
void service_records_read(int fd, ServiceRecordSink sink, void *arg);
