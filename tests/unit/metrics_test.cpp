#include "status/metrics_internal.h"

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

TEST(Metrics, AddressesWithTheirPrefixLengths)
{
    struct sockaddr_in addresses[4] = {}, masks[4] = {};
    struct ifaddrs list[4] = {};
    const char *k_masks[] = {"255.255.255.0", "255.255.128.0", "255.255.255.255", "255.0.255.0"};
    for (int i = 0; i < 4; i++) {
        addresses[i].sin_family = AF_INET;
        addresses[i].sin_addr.s_addr = htonl(0x0a000000 + (uint32_t)i);
        masks[i].sin_addr.s_addr = inet_addr(k_masks[i]);
        list[i].ifa_name = (char *)"eth0";
        list[i].ifa_addr = (struct sockaddr *)&addresses[i];
        list[i].ifa_netmask = (struct sockaddr *)&masks[i];
        list[i].ifa_next = i < 3 ? &list[i + 1] : nullptr;
    }
    char text[1024] = "", small[16] = "";
    metrics_iface_addr(list, "eth0", AF_INET, text, sizeof(text));
    metrics_iface_addr(list, "eth1", AF_INET, text, sizeof(text));         // adds nothing
    EXPECT_STREQ(text, "10.0.0.0/24 10.0.0.1/17 10.0.0.2/32 10.0.0.3/8 "); // ends at the first byte not full
    metrics_iface_addr(list, "eth0", AF_INET, small, sizeof(small));
    EXPECT_STREQ(small, "10.0.0.0/24 10.");
}
