// log_file.h - the ring of log files "0.log", "1.log", ... in the log directory that the init cfg names.
// log_init picks the file to continue or to overwrite and opens it; log_split_check does so again when it is full.
// Main thread only. Blocks for file operations; the log lock is held as writer from the mode change to the end.
#pragma once

#include <stdint.h>

constexpr int LOG_FILE_SLOTS = 10; // the largest max_log_file_number that the init cfg allows

// Reads the log settings from the init cfg (which ends the process when that file cannot be read) and opens a file of
// the ring. 1 on success, also when syslog was chosen or g_log_std is 1 (then nothing happens at all); 0, logged, when
// directory, scan or open failed.
int log_init(void);

// Logs the current file's path (nothing without a file), flushes and closes the stream. For the end of the process:
// gives up after 200 ms when another thread sits in the log lock.
void log_close(void);

// One turn of the main loop: measures the current file and runs log_init when it has reached its limit.
void log_split_check(void);

// The two steps of log_init that decide, public for tests.

// Records the log files of directory ("/" at its end) in the table: the number of valid ones (10 at most), or -1.
int log_dir_scan(const char *directory);

// Index of the slot to open, out of max_number slots of max_size bytes each, made the current entry; *truncate is 1
// when it is to be overwritten.
int log_pick_slot(int32_t max_number, int32_t max_size, int *truncate);
