#include "transport/interface.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"

constexpr int INTERFACE_RECORDS = 16;

// Address of a found interface that is up.
static int interface_address(int fd, struct ifreq *record, char (&ip)[IP_TEXT_SIZE])
{
    char name[IFNAMSIZ];
    (void)text_set(name, record->ifr_name);
    if (ioctl(fd, SIOCGIFFLAGS, record) != 0)
        return 0;
    if (!(record->ifr_flags & IFF_UP)) {
        log_error("The interface: %s status is DOWN", name);
        return 0;
    }
    log_debug("the interface status is UP");
    if (ioctl(fd, SIOCGIFADDR, record) != 0)
        return 0;
    struct sockaddr_in address;
    memcpy(&address, &record->ifr_addr, sizeof(address));
    if (!inet_ntop(AF_INET, &address.sin_addr, ip, IP_TEXT_SIZE))
        return 0;
    log_info("The interface: %s, IP address: %s, status is UP.", name, ip);
    return 1;
}

static int find_interface(int fd, const char *interface, char (&ip)[IP_TEXT_SIZE])
{
    struct ifreq records[INTERFACE_RECORDS] = {};
    struct ifconf list = {};
    list.ifc_len = sizeof(records);
    list.ifc_req = records;
    if (ioctl(fd, SIOCGIFCONF, &list) != 0) {
        log_error("cpm: ioctl");
        return 0;
    }
    int count = list.ifc_len / (int)sizeof(records[0]);
    log_debug("interface num is: %d", count);
    for (int i = count - 1; i >= 0; i--) {
        log_debug("Net device: %s", records[i].ifr_name);
        if (strcmp(records[i].ifr_name, interface) == 0)
            return interface_address(fd, &records[i], ip);
    }
    return 0;
}

int get_interface_ip(const char *interface, char (&ip)[IP_TEXT_SIZE])
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        log_error("cpm: socket");
        return 0;
    }
    int found = find_interface(fd, interface, ip);
    close(fd);
    return found;
}
