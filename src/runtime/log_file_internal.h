// log_file_internal.h - the two deciding steps of log_init, for tests.
#pragma once

#include <stdint.h>

// Records the log files of directory ("/" at its end) in the table. Returns the number of valid ones, 10 at most, or -1
// (logged).
int log_dir_scan(const char *directory);

// Index of the slot to open, out of max_number slots of max_size bytes each, made the current entry; *truncate is 1
// when it is to be overwritten.
int log_pick_slot(int32_t max_number, int32_t max_size, int *truncate);
