// soak_device.h - the device of the soak: results, alarms, other messages and service records, at random.
#pragma once

// Sends until g_soak.traffic is false. A thread of its own.
void device_run(unsigned seed);
