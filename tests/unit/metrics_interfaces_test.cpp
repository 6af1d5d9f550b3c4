#include "status/metrics.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support.h"

// Interfaces of a network of its own; needs the right to make one.
static const char k_network[] =
    "exec 2>&1; set -e; ip link set lo up; ip link add nm0 type veth peer name nm0.100;"
    "ip link add nm1 type veth peer name m1;"
    "ip link add nm2 type bridge; ip addr add 10.9.5.1/30 dev nm2; ip link set nm2 address 02:00:00:aa:bb:0e;"
    "ip link set nm0 address 02:00:00:aa:bb:0c mtu 1400 addrgenmode none;"
    "ip link set nm0.100 address 02:00:00:aa:bb:0d addrgenmode none;"
    "ip addr add 10.9.0.1/24 dev nm0; ip addr add 10.9.1.1/25 dev nm0;"
    "ip -6 addr add fd00::1/64 dev nm0 nodad; ip addr add 10.9.2.1/32 dev nm0.100;"
    "ip addr add 10.9.3.1/24 dev nm1; ip addr add 10.9.4.1/24 dev m1; ip link set nm0 up";

static void interfaces_in_own_network(int out_fd)
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0 || system(k_network) != 0)
        return;
    info_edit([](PluginInfo *next) { (void)text_set(next->interface_blacklist, "nm1:wlan0"); });
    // Emulators may not know the question about the link; then the member is left out.
    struct ifreq request = {};
    struct ethtool_cmd command = {};
    command.cmd = ETHTOOL_GSET;
    memcpy(request.ifr_name, "nm0", 4);
    request.ifr_data = (char *)&command;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    (void)!write(out_fd, ioctl(fd, SIOCETHTOOL, &request) == 0 ? "+" : "-", 1);
    close(fd);
    cJSON *array = cJSON_CreateArray();
    metrics_interfaces(array);
    char *text = cJSON_PrintUnformatted(array);
    (void)!write(out_fd, text, strlen(text));
    cJSON_free(text);
    cJSON_Delete(array);
}

// Puts an N in the place of the member's digits.
static void counter_mask(std::string *text, const std::string &member)
{
    size_t at = 0;
    while ((at = text->find(member + "\":\"", at)) != std::string::npos) {
        at += member.size() + 3;
        text->replace(at, text->find_first_not_of("0123456789", at) - at, "N");
    }
}

TEST(Metrics, InterfacesInTheKernelsOrder)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        interfaces_in_own_network(ends[1]);
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char chunk[4096];
    ssize_t got;
    while ((got = read(ends[0], chunk, sizeof(chunk))) > 0)
        text.append(chunk, (size_t)got);
    close(ends[0]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    if (text.empty())
        GTEST_SKIP() << "no network of its own here";
    for (const char *counter : {"rxbytes", "txbytes", "rxpackets", "txpackets"})
        counter_mask(&text, counter);
    bool knows_link = text[0] == '+';
    const std::string veth = knows_link ? "\"linkSpeed\":\"full-10000\"," : "";
    const std::string bridge = knows_link ? "\"linkSpeed\":\"unkown-4294967295\"," : "";
    const std::string counters = "\"rxbytes\":\"N\",\"txbytes\":\"N\",\"rxpackets\":\"N\",\"txpackets\":\"N\"}";
    EXPECT_EQ(text.substr(1), "[{\"ifname\":\"nm0.100\",\"type\":\"Ethernet\",\"vlanid\":\"100\",\"mtu\":\"1500\","
                              "\"mac\":\"02:00:00:AA:BB:0D\",\"ipv4\":\"10.9.2.1/32 \",\"ipv6\":\"\","
                              "\"linkstatus\":\"down\"," +
                                  veth + counters +
                                  ",{\"ifname\":\"nm0\",\"type\":\"Ethernet\",\"mtu\":\"1400\","
                                  "\"mac\":\"02:00:00:AA:BB:0C\",\"ipv4\":\"10.9.0.1/24 10.9.1.1/25 \","
                                  "\"ipv6\":\"fd00::1/64 \",\"linkstatus\":\"up\"," +
                                  veth + counters +
                                  ",{\"ifname\":\"nm2\",\"type\":\"Ethernet\",\"mtu\":\"1500\","
                                  "\"mac\":\"02:00:00:AA:BB:0E\",\"ipv4\":\"10.9.5.1/30 \",\"ipv6\":\"\","
                                  "\"linkstatus\":\"down\"," +
                                  bridge + counters + "]");
}
