// plugin_config.h - config.ini in the working directory: addresses, ports, log options, tunnel buffer sizes.
// Main thread: at start-up, and again by the bring-up after every fifth failure.
#pragma once

// Reads the file into g_plugin_info and the single-word settings, one info line per key. A missing file gives the
// defaults, a broken one leaves the values in force. Always returns 1.
int read_plugin_config(void);
