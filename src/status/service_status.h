// service_status.h - reporting the records of the service status file, which the device keeps adding to, by NM's
// strategy. One record of settings under its own short lock; only the thread dev_service_status_report runs reports,
// everybody else asks for one.
#pragma once

#include <stdint.h>

enum ServiceReportMode : int32_t {
    SERVICE_IMMEDIATE = 0,
    SERVICE_TIMING = 1,
    SERVICE_DELAY = 2, // by size; empties the file
    SERVICE_IMMEDIATE_TIMING = 3,
    SERVICE_IMMEDIATE_DELAY = 4, // by size; empties the file
};

// Bring-up succeeded: timer stopped, disabled, mode 0, 120 s, limit 100, a pending request forgotten (a run goes on).
void service_status_reset(void);

// Bring-up restarts: disabled; the thread stops the timer.
void service_status_disable(void);

// "start" / "stop" of NM. start asks for a report.
void service_status_start(void);
void service_status_stop(void);

bool service_status_is_enabled(void);

// Strategy values in force, and NM's change of them: logs a change of the period and lets the timer start anew.
int32_t service_status_period_get(void);
int32_t service_status_limit_get(void);
void service_status_set_timing(ServiceReportMode mode, int32_t period_s);
void service_status_set_delay(ServiceReportMode mode, int32_t limit_kib);
void service_status_set_immediate(void);

// The device asks for a report. Honoured when reporting is enabled and the mode is one of the immediate ones.
void service_status_device_request(void);

// Reads the file and posts each record; empties the file afterwards when truncate is set and the run was not cut short.
void service_status_report(int truncate);

// Runs one report, with the truncate flag of the mode, unless one is in progress.
void service_status_report_now(void);

// One step of the reporting loop, ends with a pause of 200 ms.
void service_status_poll(void);

// One cycle of the thread dev_service_status_report: service_status_poll and 5 ms. Sleeps first, until a request or a
// change of the settings, when no report is due and no file size is to be watched.
void service_status_turn(void);

// Creates the thread's doorbell; start-up, before the threads. 0, or -1 without a descriptor (errno set).
int service_status_init(void);
