#include "monitor/notify.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"

static bool s_has_failed; // since the last success

static socklen_t address_make(const char *path, struct sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    (void)text_set(address->sun_path, path);
    size_t len = strlen(address->sun_path);
    if (address->sun_path[0] != '@')
        return (socklen_t)sizeof(*address);
    address->sun_path[0] = '\0';
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + len);
}

int notify_send(const char *path, const char *message)
{
    struct sockaddr_un address;
    socklen_t address_len = address_make(path, &address);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    size_t len = strlen(message);
    bool is_sent = fd >= 0 && sendto(fd, message, len, MSG_NOSIGNAL, (const struct sockaddr *)&address, address_len) ==
                                  (ssize_t)len;
    if (!is_sent && !s_has_failed)
        log_warn("Notify the supervisor failed! Path: %s, err: %s!", path, error_text(errno).text);
    s_has_failed = !is_sent;
    if (fd >= 0)
        close(fd);
    return is_sent ? 0 : -1;
}
