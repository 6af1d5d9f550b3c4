#include "status/metrics.h"

#include <arpa/inet.h>

#include "support.h"

// The two counters that parse finds in text.
template <class Number> static std::string counters(void (*parse)(FILE *, Number *, Number *), const char *text)
{
    Number first = 1, second = 1;
    FILE *stream = fmemopen((void *)text, strlen(text), "r");
    parse(stream, &first, &second);
    fclose(stream);
    return std::to_string(first) + " " + std::to_string(second);
}

TEST(Metrics, ProcessorAndMemoryCounters)
{
    const struct {
        const char *text, *total_and_idle;
    } k_cpu_cases[] = {
        {"cpu  1 2 3 4 5 6 7 8 9 10\ncpu0 9 9 9 9 9\n", "55 4"},
        {"cpu  1 2 3 4\n", "10 4"}, // old kernels have few columns
        {"cpu  1 2 3\n", "0 0"},
        {"cpu  1 2 3 4 5 6 7 8 9 10 11 12 13\n", "78 4"},
        {"cpu  5000000000 1 1 18446744073709551000 1\n", "4999999387 18446744073709551000"},
        {"cpu0 1 2 3 4\nintr 5\nCPU  1 1 1 7 0\n", "10 7"},
        {"intr 5\n", "0 0"},
    };
    for (const auto &c : k_cpu_cases)
        EXPECT_EQ(counters(metrics_cpu_parse, c.text), c.total_and_idle) << c.text;
    const struct {
        const char *text, *total_and_free;
    } k_memory_cases[] = {
        {"MemTotal:  61440 kB\nMemFree: 1234 kB\nMemAvailable: 40000 kB\nMemFree: 9 kB\n", "61440 1234"},
        {"memtotal: 5 kB\nmemfree: 4 kB\n", "5 4"},
        {"MemTotal: 61440 kB\nMemAvailable: 40000 kB\n", "61440 0"},
        {"MemTotal: 5000000000 kB\nMemFree:\n", "2147483647 0"},
        {"Buffers: 1 kB\n", "0 0"},
    };
    for (const auto &c : k_memory_cases)
        EXPECT_EQ(counters(metrics_mem_parse, c.text), c.total_and_free) << c.text;
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

// One link of the list that the kernel gives; storage behind it.
struct FakeAddress {
    struct ifaddrs entry;
    struct sockaddr_storage address, mask;
};

static struct sockaddr *fake_sockaddr(struct sockaddr_storage *storage, const char *text)
{
    if (!text)
        return nullptr;
    bool six = strchr(text, ':');
    storage->ss_family = six ? AF_INET6 : AF_INET;
    void *field =
        six ? (void *)&((struct sockaddr_in6 *)storage)->sin6_addr : (void *)&((struct sockaddr_in *)storage)->sin_addr;
    EXPECT_EQ(inet_pton(storage->ss_family, text, field), 1);
    return (struct sockaddr *)storage;
}

TEST(Metrics, AddressesWithTheirPrefixLengths)
{
    const struct {
        const char *name, *address, *mask;
    } k_rows[] = {
        {"eth0", "10.0.0.1", "255.255.255.0"},
        {"eth0", nullptr, nullptr}, // as packet sockets list it
        {"eth0", "10.0.1.1", "255.255.128.0"},
        {"eth1", "10.0.9.9", "255.0.0.0"},
        {"eth0", "255.255.255.255", "255.255.255.255"},
        {"eth0", "10.0.2.1", "255.0.255.0"}, // ends at the first byte not full
        {"eth0", "10.0.3.1", "0.0.0.0"},
        {"eth0", "10.0.4.1", nullptr},
        {"eth0", "fe80::1", "ffff:ffff:ffff:ffff::"},
        {"eth0", "2001:db8:1111:2222:3333:4444:5555:6666", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    };
    FakeAddress fakes[10] = {};
    for (size_t i = 0; i < 10; i++) {
        fakes[i].entry.ifa_name = (char *)k_rows[i].name;
        fakes[i].entry.ifa_addr = fake_sockaddr(&fakes[i].address, k_rows[i].address);
        fakes[i].entry.ifa_netmask = fake_sockaddr(&fakes[i].mask, k_rows[i].mask);
        fakes[i].entry.ifa_next = i < 9 ? &fakes[i + 1].entry : nullptr;
    }
    char four[1024] = "", six[1024] = "", small[16] = "";
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET, four, sizeof(four));
    metrics_iface_addr(&fakes[0].entry, "eth1", AF_INET6, four, sizeof(four)); // adds nothing
    EXPECT_STREQ(four, "10.0.0.1/24 10.0.1.1/17 255.255.255.255/32 10.0.2.1/8 10.0.3.1/0 10.0.4.1/0 ");
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET6, six, sizeof(six));
    EXPECT_STREQ(six, "fe80::1/64 2001:db8:1111:2222:3333:4444:5555:6666/128 ");
    metrics_iface_addr(&fakes[0].entry, "eth0", AF_INET, small, sizeof(small));
    EXPECT_STREQ(small, "10.0.0.1/24 10.");
}
