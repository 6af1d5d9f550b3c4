// device_init.h - bring-up: from a cold start to online with NM, and back again after every outage.
//
//   state    | holds                                            | leaves
//   waiting  | enable_init_flag 0, init_done 0, alarm armed     | to a pass, when the alarm sets the flag
//   pass     | main thread inside device_init_pass, seconds     | to online or waiting
//   online   | init_done 1, DMA status 4, both timers running   | to waiting, by restart_device_init
//
// Failures wait 10 s; from the fifth on 30 s, from the tenth on 120 s (the stage). Only a restart resets the stage.
// The bring-up lock (short) guards init_done's changes together with the UDP detection and run-status timers.
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>

extern std::atomic<uint8_t> g_enable_init_flag; // 1: main runs a pass in its next turn
extern std::atomic<uint8_t> g_init_done;        // 1 after a successful activation

// One pass; main thread only.
void device_init_pass(void);

// Back to waiting, with a pass in 10 s: closes every connection but the device's, stops both timers, disables the
// service report. Nothing when not online. Any thread; takes no long lock (the NM post lock may be held by the caller).
// Why it restarts is for the caller to log.
void restart_device_init(void);

// The init cfg now names another device or another NM: restarts; a pass under way, which has read the old one, does not
// wait for the old NM any longer and is followed by the restart. Any thread but main.
void device_identity_changed(void);

// SIGALRM: asks for a pass. Signal context.
void on_enable_init_alarm(int signal_number);

// NM changes a period (s): when it differs from the one in force, logs change_line (with the old and the new value),
// stops, stores and starts the timer in one step. Any thread.
void udp_detection_period_set(int32_t period_s);
void run_status_period_set(int32_t period_s);
