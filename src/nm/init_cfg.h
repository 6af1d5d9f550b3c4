// init_cfg.h - the JSON file that the device writes: who the device is, where NM is, paths, ports and limits.
// Reads the file at g_plugin_info's init_cfg_path, 10240 bytes at most. A file that cannot be read or is empty ends the
// process with status 0 (stop_process; off the main thread the call then returns -1). No lock may be held by callers.
#pragma once

#include "runtime/plugin_info.h"

// Reads, checks and bounds every key and commits what was read. 0: all there and the interface's own address in force;
// 1: all there, but the interface has no address ("localIp" is in force); -1: a key missing or wrong, version mismatch,
// bad JSON (nothing is changed then). Main thread and dev_msg_handle.
int init_cfg_parse(void);

// Takes the three log keys only; called up from log_init, before the log target is chosen. 0, or -1 for bad JSON.
int init_cfg_parse_log(void);

// 0 when the file's identity keys equal what is in force, 1 when one differs or is missing, -1 when the file cannot be
// read or parsed. Changes nothing and ends nothing.
int init_cfg_compare(void);

// Ends a redirection: the next reading takes NM's method, host and port from the file again.
void init_cfg_redirection_forget(void);
