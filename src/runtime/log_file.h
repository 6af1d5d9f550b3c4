// log_file.h - the ring of log files "0.log", "1.log", ... in the log directory that the init cfg names.
// log_init picks the file to continue or to overwrite and opens it; log_split_check does so again when it is full.
// Main thread only. Blocks for file operations; from the mode change to the end the log lock is held as writer.
#pragma once

// Registers what log_init calls to bring the log fields of PluginInfo up to date; read returns 0, or -1 when it could
// not. Start-up, before log_init, which takes a missing reader for one that failed.
void log_settings_reader_set(int (*read)(void));

// Reads the log settings (the reader may end the process) and opens a file of the ring. 1 on success, also when syslog
// was chosen and when g_log_std is 1 (nothing happens then); 0 (logged) when directory, scan or open failed.
int log_init(void);

// Logs the current file's path (nothing without a file), flushes and closes the stream. For the end of the process:
// gives up after 200 ms when another thread does not release the log lock.
void log_close(void);

// One turn of the main loop: measures the current file and runs log_init when it has reached its limit.
void log_split_check(void);
