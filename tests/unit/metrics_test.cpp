#include "status/metrics.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <regex.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "nm/device_init.h"
#include "nm_peer.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"

static FILE *stream_of(const char *text)
{
    return fmemopen((void *)text, strlen(text), "r");
}

TEST(Metrics, ProcessorCounters)
{
    const struct {
        const char *text;
        uint64_t total, idle;
    } k_cases[] = {
        {"cpu  1 2 3 4 5 6 7 8 9 10\ncpu0 9 9 9 9 9\n", 55, 4},
        {"cpu  1 2 3 4\n", 10, 4}, // old kernels have few columns
        {"cpu  1 2 3\n", 0, 0},
        {"cpu  1 2 3 4 5 6 7 8 9 10 11 12 13\n", 78, 4},
        {"cpu  5000000000 1 1 18446744073709551000 1\n", 4999999387, 18446744073709551000u},
        {"cpu0 1 2 3 4\nintr 5\nCPU  1 1 1 7 0\n", 10, 7},
        {"intr 5\n", 0, 0},
    };
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.text);
        uint64_t total = 1, idle = 1;
        FILE *stream = stream_of(c.text);
        metrics_cpu_parse(stream, &total, &idle);
        fclose(stream);
        EXPECT_EQ(total, c.total);
        EXPECT_EQ(idle, c.idle);
    }
}

TEST(Metrics, MemoryCounters)
{
    const struct {
        const char *text;
        int32_t total, free;
    } k_cases[] = {
        {"MemTotal:  61440 kB\nMemFree: 1234 kB\nMemAvailable: 40000 kB\nMemFree: 9 kB\n", 61440, 1234},
        {"memtotal: 5 kB\nmemfree: 4 kB\n", 5, 4},
        {"MemTotal: 61440 kB\nMemAvailable: 40000 kB\n", 61440, 0},
        {"MemTotal: 5000000000 kB\nMemFree:\n", INT32_MAX, 0},
        {"Buffers: 1 kB\n", 0, 0},
    };
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.text);
        int32_t total = 1, available = 1;
        FILE *stream = stream_of(c.text);
        metrics_mem_parse(stream, &total, &available);
        fclose(stream);
        EXPECT_EQ(total, c.total);
        EXPECT_EQ(available, c.free);
    }
}

TEST(Metrics, BlacklistExcludesByTheEndOfAnEntry)
{
    const struct {
        const char *list, *name;
        int excluded;
    } k_cases[] = {
        {"eth1:wlan0", "eth1", 1}, {"eth1:wlan0", "wlan0", 1}, {"eth1:wlan0", "eth10", 0}, {"eth1:wlan0", "th1", 1},
        {"eth10:eth1", "eth1", 1}, {"eth10", "eth1", 0},       {"eth1:wlan0", "wlan", 0},  {"", "eth1", 0},
        {"eth1:wlan0", "", 0},
    };
    for (const auto &c : k_cases)
        EXPECT_EQ(metrics_is_blacklisted(c.list, c.name), c.excluded) << c.list << " " << c.name;
}

struct FakeAddress {
    struct ifaddrs entry;
    struct sockaddr_storage address, mask;
};

static void fake_address(FakeAddress *fake, const char *name, const char *address, const char *mask)
{
    *fake = {};
    fake->entry.ifa_name = (char *)name;
    if (!address)
        return; // an interface without one, as packet sockets list it
    int family = strchr(address, ':') ? AF_INET6 : AF_INET;
    fake->address.ss_family = fake->mask.ss_family = (sa_family_t)family;
    auto field = [family](struct sockaddr_storage *storage) -> void * {
        return family == AF_INET ? (void *)&((struct sockaddr_in *)storage)->sin_addr
                                 : (void *)&((struct sockaddr_in6 *)storage)->sin6_addr;
    };
    ASSERT_EQ(inet_pton(family, address, field(&fake->address)), 1);
    fake->entry.ifa_addr = (struct sockaddr *)&fake->address;
    if (mask) {
        ASSERT_EQ(inet_pton(family, mask, field(&fake->mask)), 1);
        fake->entry.ifa_netmask = (struct sockaddr *)&fake->mask;
    }
}

TEST(Metrics, AddressesWithTheirPrefixLengths)
{
    const struct {
        const char *name, *address, *mask;
    } k_rows[] = {
        {"eth0", "10.0.0.1", "255.255.255.0"},
        {"eth0", nullptr, nullptr},
        {"eth0", "10.0.1.1", "255.255.128.0"},
        {"eth1", "10.0.9.9", "255.0.0.0"},
        {"eth0", "255.255.255.255", "255.255.255.255"},
        {"eth0", "10.0.2.1", "255.0.255.0"}, // ends at the first byte not full
        {"eth0", "10.0.3.1", "0.0.0.0"},
        {"eth0", "10.0.4.1", nullptr},
        {"eth0", "fe80::1", "ffff:ffff:ffff:ffff::"},
        {"eth0", "2001:db8:1111:2222:3333:4444:5555:6666", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    };
    constexpr size_t rows = sizeof(k_rows) / sizeof(k_rows[0]);
    FakeAddress fakes[rows];
    for (size_t i = 0; i < rows; i++) {
        fake_address(&fakes[i], k_rows[i].name, k_rows[i].address, k_rows[i].mask);
        fakes[i].entry.ifa_next = i + 1 < rows ? &fakes[i + 1].entry : nullptr;
    }
    char text[1024] = "";
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET, text, sizeof(text));
    EXPECT_STREQ(text, "10.0.0.1/24 10.0.1.1/17 255.255.255.255/32 10.0.2.1/8 10.0.3.1/0 10.0.4.1/0 ");
    metrics_iface_addr(&fakes[0].entry, "eth1", AF_INET6, text, sizeof(text));
    EXPECT_STREQ(text, "10.0.0.1/24 10.0.1.1/17 255.255.255.255/32 10.0.2.1/8 10.0.3.1/0 10.0.4.1/0 ");
    char six[1024] = "";
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET6, six, sizeof(six));
    EXPECT_STREQ(six, "fe80::1/64 2001:db8:1111:2222:3333:4444:5555:6666/128 ");
    char small[16] = "";
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET, small, sizeof(small));
    EXPECT_STREQ(small, "10.0.0.1/24 10.");
}

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
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.interface_blacklist, "nm1:wlan0");
    plugin_info_edit_commit(&edit);
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
