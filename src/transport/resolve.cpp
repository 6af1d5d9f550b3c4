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

// Looks at the IPv4 addresses of a name: true when one is *wanted; with null the first one, which goes to *found.
struct AddressSearch {
    const struct in_addr *wanted;
    struct in_addr *found;
};

static bool address_pick(const struct hostent *entry, const AddressSearch *search)
{
    if (entry->h_addrtype != AF_INET)
        return false;
    for (char **address = entry->h_addr_list; *address; address++) {
        if (!search->wanted || memcmp(*address, search->wanted, sizeof(*search->wanted)) == 0) {
            memcpy(search->found, *address, sizeof(*search->found));
            return true;
        }
    }
    return false;
}

// 1 when the search found its address, 0 when the name has others only, -1 when there is none.
static int lookup_address(const char *name, const AddressSearch *search)
{
    for (size_t size = 1024; size <= LOOKUP_SCRATCH_MAX; size *= 2) {
        char *scratch = (char *)malloc(size);
        if (!scratch)
            return -1;
        struct hostent entry;
        struct hostent *found = nullptr;
        int error = 0;
        int result = gethostbyname_r(name, &entry, scratch, size, &found, &error);
        int picked = result == 0 && found ? (int)address_pick(found, search) : -1;
        free(scratch);
        if (result != ERANGE)
            return picked;
    }
    return -1;
}

int resolve_host(char *buffer, size_t cap)
{
    if (!buffer || cap == 0 || buffer[0] == '\0')
        return -1;
    struct in_addr address;
    char text[IP_TEXT_SIZE];
    AddressSearch first = {nullptr, &address};
    if (lookup_address(buffer, &first) != 1) {
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

bool resolve_host_has(const char *name, const struct in_addr *address)
{
    struct in_addr found;
    AddressSearch search = {address, &found};
    int result = lookup_address(name, &search);
    if (result < 0)
        log_error("gethostbyname() failed: %s", name);
    return result == 1;
}
