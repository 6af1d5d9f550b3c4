#include "runtime/file_util.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/wait.h"

int check_file(const char *path)
{
    log_debug("Checking file: %s...", path);
    if (access(path, R_OK) == 0) {
        log_debug("OK!");
        return 1;
    }
    log_warn("FAILED with checking file: %s!", path);
    return 0;
}

static bool has_read_arguments(const char *path, const char *out_buf, size_t out_buf_len)
{
    if (!path)
        log_error("path is NULL!");
    if (!out_buf)
        log_error("out_buf is NULL!");
    if (out_buf_len == 0)
        log_error("out_buf_len is INVALID!");
    return path && out_buf && out_buf_len > 0;
}

ssize_t read_file(const char *path, char *out_buf, size_t out_buf_len)
{
    if (!has_read_arguments(path, out_buf, out_buf_len))
        return -1;
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == 0) {
        log_warn("Reading file failed! ErrorNo: %d, Path : %s!", errno, path);
        close(fd);
        return 0;
    }
    // After a failed open the read fails too, and its debug line is the only one.
    ssize_t len = read(fd, out_buf, out_buf_len);
    log_debug("Path : %s, len: %d, content: %.*s", path, (int)len, len > 0 ? (int)len : 0, out_buf);
    if (fd > 0)
        close(fd);
    return len;
}

int lock_file(int fd, short type, int wait_ms)
{
    struct flock whole_file = {};
    whole_file.l_type = type;
    whole_file.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &whole_file) == 0)
        return 0;
    log_warn("Set file lock failed: %s", strerror(errno));
    if (wait_ms == 0 || wait_sleep_ms(wait_ms) == WAIT_CUT)
        return -1;
    if (fcntl(fd, F_SETLK, &whole_file) == 0)
        return 0;
    log_warn("Set file lock failed again: %s", strerror(errno));
    return -1;
}
