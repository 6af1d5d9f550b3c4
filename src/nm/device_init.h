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

enum DmaStatus : uint32_t {
    DMA_OFFLINE = 0,
    DMA_PLUGIN_INIT_FAILED = 1,
    DMA_CENTER_REQUEST_FAILED = 2, // known to the device, set by nobody
    DMA_ACTIVATION_FAILED = 3,
    DMA_ONLINE = 4,
};
constexpr size_t DMA_CAUSE_SIZE = 128;

// One pass; main thread only.
void device_init_pass(void);

// Cause that is told with the DMA status; a change (of the uncut text) marks the device notification pending. Null: an
// error line. Any thread.
void set_dma_cause(const char *cause);

// Copies the cause, returns the status. Any thread.
uint32_t dma_status_get(char (&cause)[DMA_CAUSE_SIZE]);

// Back to waiting, with a pass in 10 s: closes every connection but the device's, stops both timers, disables the
// service report. Nothing when not online. Any thread; takes no long lock (the NM post lock may be held by the caller).
// Why it restarts is for the caller to log.
void restart_device_init(void);

// The init cfg now names another device or another NM: restarts; a pass under way, which has read the old one, is
// followed by the restart. Any thread but main.
void device_identity_changed(void);

// Rises with every restart, and when a pass finds another NM in the init cfg: the call-off of what still runs for the
// last bring-up (wait_call_off_set).
extern std::atomic<uint32_t> g_restart_count;

// SIGALRM: asks for a pass. Signal context.
void on_enable_init_alarm(int signal_number);

// NM changes a period (s): when it differs from the one in force, logs change_line (with the old and the new value),
// stops, stores and starts the timer in one step. Any thread.
void udp_detection_period_set(int32_t period_s);
void run_status_period_set(int32_t period_s);
