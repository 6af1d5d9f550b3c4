#include "monitor/state_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/text.h"

static bool s_has_failed; // since the last success

// 0, or -1 with errno.
static int file_write(const char *path, const char *text)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd < 0)
        return -1;
    size_t len = strlen(text);
    errno = ENOSPC; // what a short count means
    bool is_whole = write(fd, text, len) == (ssize_t)len;
    int error_number = errno;
    close(fd);
    errno = error_number;
    return is_whole ? 0 : -1;
}

void state_file_replace(const char *path, const char *text)
{
    char fresh[OPTION_PATH_SIZE + 8];
    (void)text_fmt(fresh, "%s.new", path);
    if (file_write(fresh, text) == 0 && rename(fresh, path) == 0) {
        s_has_failed = false;
        return;
    }
    if (!s_has_failed)
        log_warn("Write state file failed! Path: %s, err: %s!", path, error_text(errno).text);
    (void)unlink(fresh);
    s_has_failed = true;
}

void state_file_remove(const char *path)
{
    (void)unlink(path);
}
