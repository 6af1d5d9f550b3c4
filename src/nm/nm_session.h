// nm_session.h - the session with NM: whether it stands, what ends it, and when the next bring-up pass comes.
//
//   state    | holds                                               | leaves
//   waiting  | g_enable_init_flag 0, g_init_done 0, alarm armed    | to a pass, when the alarm sets the flag
//   pass     | main thread inside device_init_pass, seconds        | to online or waiting
//   online   | g_init_done 1, DMA status 4, both timers running    | to waiting, by restart_device_init
//
// The bring-up lock (short) guards g_init_done's way to 1 together with the UDP detection and run-status timers.
#pragma once

#include <atomic>
#include <stdint.h>

#include "runtime/timer.h"

extern std::atomic<uint8_t> g_enable_init_flag; // 1: main runs a pass in its next turn
extern std::atomic<uint8_t> g_init_done;        // 1 after a successful activation

// The first pass: at once, or with start_spread_s after a random time of at most so many seconds. So do the restarts
// add such a time to theirs: devices that lost power or NM together do not come back together. Main thread, at
// start-up.
void nm_session_begin(void);

// Online: DMA status, service report and both timers start as new, in one step. Main thread.
typedef void (*TimerCallback)(PluginTimer *timer);
void nm_session_open(TimerCallback udp_detection, TimerCallback run_status);

// Back to waiting, with a pass in 10 s (and a random time, see nm_session_begin): closes every connection but the
// device's, stops both timers, disables the service report. Nothing when not online. Any thread; takes no long lock
// (the NM post lock may be held by the caller). Why it restarts is for the caller to log.
void restart_device_init(void);

// A failed pass: arms the alarm for the next one, in 10, 30 or 120 s by the retry stage. Main thread.
void nm_session_retry_arm(void);

// Milliseconds until the next pass while one is armed; -1 while online, in a pass or due. Any thread.
int nm_session_next_pass_ms(void);

// The stage only rises with failures and only a restart resets it, so that a device that flaps keeps its long delay.
void nm_session_retry_slow_down(void);
void nm_session_retry_reset(void);

// NM changes a period (s): when it differs from the one in force, logs both, stops, stores and starts the timer in one
// step. Any thread.
void udp_detection_period_set(int32_t period_s);
void run_status_period_set(int32_t period_s);
