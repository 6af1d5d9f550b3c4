// monitor.h - the agent shows how it fares: a state file for people and scripts, words and pings for a supervisor
// ([monitor] in config.ini, as read at start-up). One turn a second on a thread of its own; without both keys there is
// no thread.
#pragma once

// A state file or a supervisor is configured. Main thread, after read_plugin_config.
bool monitor_is_wanted(void);

// One cycle of the thread. Writes the file when facts changed, every 10 s at least; tells the supervisor READY once,
// STATUS when its words change, WATCHDOG every 10 s unless a thread is stuck, and STOPPING when the process stops, when
// the file is removed too.
void monitor_turn(void);
