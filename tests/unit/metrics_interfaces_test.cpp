#include "status/metrics_internal.h"

#include <fstream>
#include <regex>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "runtime/wait.h"
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

// What may be mounted so is of the calling thread only.
static bool own_mounts()
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Of a thread that has left the process's network; empty when it may not.
static std::string interfaces_in_own_network()
{
    if (unshare(CLONE_NEWNET) != 0 || !own_mounts() || mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0 ||
        system(k_network) != 0)
        return "";
    cJSON *array = cJSON_CreateArray();
    metrics_interfaces(array);
    char *text = cJSON_PrintUnformatted(array);
    std::string result = text;
    cJSON_free(text);
    cJSON_Delete(array);
    struct ifaddrs *list;
    char small[16] = "";
    EXPECT_EQ(0, getifaddrs(&list));
    metrics_iface_addr(list, "nm0", AF_INET, small, sizeof(small));
    EXPECT_STREQ("10.9.0.1/24 10.", small);
    freeifaddrs(list);
    return std::regex_replace(result, std::regex("(rx|tx)(bytes|packets)\":\"[0-9]+"), "$1$2\":\"N");
}

TEST(Metrics, InterfacesInTheKernelsOrder)
{
    info_edit([](PluginInfo *next) { (void)text_set(next->interface_blacklist, "nm1:wlan0"); });
    std::string text;
    std::thread([&] { text = interfaces_in_own_network(); }).join();
    if (text.empty())
        GTEST_SKIP() << "no network of its own here";
    std::string expected;
    for (const Texts &row : examples("interfaces"))
        expected += (expected.empty() ? "[" : ",") + row[1];
    const std::regex speed(*PLUGIN_RUNNER ? "\"linkSpeed\":\"[^\"]*\"," : "$^"); // an emulator may not know it
    EXPECT_EQ(std::regex_replace(expected, speed, "") + "]", std::regex_replace(text, speed, ""));
}

// Two samples of the processor a second apart; disks of 64 and 192 KiB, where one that fails repeats the one before.
static void usage_with_own_mounts(std::string *usages)
{
    const TempDir dir;
    char cpu[32], mem[32], disk[32];
    const std::string base = dir.path, stat = base + "/stat", full = base + "/full", rest = base + "/rest";
    std::ofstream(stat) << "cpu  10 0 0 30\n";
    if (own_mounts() && mount(stat.c_str(), "/proc/stat", nullptr, MS_BIND, nullptr) == 0 &&
        mkdir(full.c_str(), 0700) == 0 && mount("none", full.c_str(), "tmpfs", 0, "size=64k") == 0 &&
        mkdir(rest.c_str(), 0700) == 0 && mount("none", rest.c_str(), "tmpfs", 0, "size=192k") == 0) {
        std::ofstream(full + "/file") << std::string(32768, 'x');
        info_edit(
            [&](PluginInfo *next) { (void)text_set(next->disk_whitelist, (full + ":/nowhere:" + rest).c_str()); });
        metrics_disk_usage(disk, sizeof(disk));
        std::thread work([&] { usleep(300000), std::ofstream(stat) << "cpu  85 0 0 55\n"; });
        EXPECT_EQ(0, metrics_usage(cpu, sizeof(cpu), mem, sizeof(mem)));
        work.join();
        *usages = std::string(cpu) + " " + disk;
    }
    (void)!system(("umount " + full + " " + rest + " 2>/dev/null").c_str());
}

TEST(Metrics, Usages)
{
    std::string usages;
    std::thread(usage_with_own_mounts, &usages).join();
    if (usages.empty())
        GTEST_SKIP() << "no mounts of its own here";
    EXPECT_EQ("75.00% 20.00%", usages);
}
