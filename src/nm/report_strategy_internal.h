// report_strategy_internal.h - for tests only.
#pragma once

// Sends the strategy (printed JSON) to the device. Warns without a device link.
void service_strategy_to_device(const char *strategy_text);
