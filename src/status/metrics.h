// metrics.h - the run-status report: the device's processor, memory and disk usage and its interfaces, as NM wants
// them.
#pragma once

#include "runtime/timer.h"

// Timer callback: builds the report, which takes a second or more, and posts it. An expiry during a running report is
// passed over.
void run_status_handler(PluginTimer *timer);
