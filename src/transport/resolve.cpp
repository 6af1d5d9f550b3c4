#include "transport/resolve.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"

constexpr size_t LOOKUP_SCRATCH_MAX = 64 * 1024; // bytes

// First IPv4 address of name. 0, or -1 when there is none.
static int lookup_address(const char *name, struct in_addr *address)
{
    for (size_t size = 1024; size <= LOOKUP_SCRATCH_MAX; size *= 2) {
        char *scratch = (char *)malloc(size);
        if (!scratch)
            return -1;
        struct hostent entry;
        struct hostent *found = nullptr;
        int error = 0;
        int result = gethostbyname_r(name, &entry, scratch, size, &found, &error);
        bool usable = result == 0 && found && found->h_addrtype == AF_INET && found->h_addr_list[0];
        if (usable)
            memcpy(address, found->h_addr_list[0], sizeof(*address));
        free(scratch);
        if (result != ERANGE)
            return usable ? 0 : -1;
    }
    return -1;
}

int resolve_host(char *buffer, size_t cap)
{
    if (!buffer || cap == 0 || buffer[0] == '\0')
        return -1;
    struct in_addr address;
    char text[IP_TEXT_SIZE];
    if (lookup_address(buffer, &address) != 0) {
        log_error("gethostbyname() failed: %s", buffer);
        return -1;
    }
    if (!inet_ntop(AF_INET, &address, text, sizeof(text))) {
        log_error("inet_ntoa() failed!");
        return -1;
    }
    (void)text_copy(buffer, cap, text);
    return 0;
}
