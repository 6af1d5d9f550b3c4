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
    for (const Texts &row : examples("processor-and-memory")) {
        const char *text = row[1].c_str();
        EXPECT_EQ(row[2],
                  row[0] == "/proc/stat" ? counters(metrics_cpu_parse, text) : counters(metrics_mem_parse, text))
            << text;
    }
}

TEST(Metrics, BlacklistExcludesByTheEndOfAnEntry)
{
    for (const Texts &row : examples("interface-blacklist"))
        EXPECT_EQ(row[2] == "yes", metrics_is_blacklisted(row[0].c_str(), row[1].c_str())) << row[0] << " " << row[1];
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
