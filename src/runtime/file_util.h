// file_util.h - checking, reading and locking of files that other programs write. Any thread, no state.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// 1 when this process may read path, else 0. Logs either.
int check_file(const char *path);

// Reads once, at most out_buf_len bytes, without a terminating NUL: callers pass a zeroed buffer one byte larger.
// Returns the number of bytes, or -1; callers treat anything below 1 as an empty file. A FIFO does not block it.
ssize_t read_file(const char *path, char *out_buf, size_t out_buf_len);

// Sets a whole-file record lock (type F_RDLCK, F_WRLCK or F_UNLCK) without blocking; after a failure waits wait_ms (0:
// no second try) and tries once more. 0 when set, -1 when not or when the wait was cut short.
// Record locks belong to the process and are released when it closes any descriptor of that file.
int lock_file(int fd, short type, int wait_ms);
