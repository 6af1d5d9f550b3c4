#include "status/metrics.h"
#include "status/metrics_internal.h"

#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/nm_post.h"
#include "transport/nm_wait.h"

constexpr int CPU_SAMPLE_GAP_MS = 1000;
constexpr int IFACE_RECORDS = 16;       // at most so many addresses are looked at
constexpr size_t ADDR_TEXT_SIZE = 1024; // some twenty addresses of an interface
constexpr size_t VALUE_TEXT_SIZE = 64;  // any other value of an interface
constexpr size_t USAGE_TEXT_SIZE = 32;

void metrics_cpu_parse(FILE *stream, uint64_t *total, uint64_t *idle)
{
    typedef unsigned long long Counter;
    *total = 0;
    *idle = 0;
    char line[256];
    while (fgets(line, sizeof(line), stream)) {
        if (!strcasestr(line, "cpu "))
            continue;
        char name[32];
        Counter c[12] = {};
        int items = sscanf(line, "%31s %qu %qu %qu %qu %qu %qu %qu %qu %qu %qu %qu %qu", name, &c[0], &c[1], &c[2],
                           &c[3], &c[4], &c[5], &c[6], &c[7], &c[8], &c[9], &c[10], &c[11]);
        if (items > 4) {
            *idle = c[3];
            for (Counter counter : c) // those that the kernel does not have are 0
                *total += counter;
        }
        break;
    }
    log_debug("Got dev cpu data: sum = %qu, idle = %qu", (Counter)*total, (Counter)*idle);
}

// Reads the number of a line "name number". A line without one leaves the value.
static void mem_line_scan(const char *line, int32_t *value)
{
    char name[32];
    long long number;
    if (sscanf(line, "%31s %lld", name, &number) == 2)
        *value = saturate_i32(number);
}

void metrics_mem_parse(FILE *stream, int32_t *total_kb, int32_t *free_kb)
{
    *total_kb = 0;
    *free_kb = 0;
    bool has_total = false;
    bool has_free = false;
    char line[256];
    while (!(has_total && has_free) && fgets(line, sizeof(line), stream)) {
        if (strcasestr(line, "MemTotal:")) {
            has_total = true;
            mem_line_scan(line, total_kb);
        } else if (strcasestr(line, "MemFree:")) { // buffers and cache count as used
            has_free = true;
            mem_line_scan(line, free_kb);
        }
    }
    log_debug("Got dev mem data: total = %d, free = %d", *total_kb, *free_kb);
}

// Has the file's two values parsed; both 0 on failure (logged).
template <typename T> static void sample(const char *path, void (*parse)(FILE *, T *, T *), T *first, T *second)
{
    if (!first || !second) {
        log_error("Invalid params!");
        return;
    }
    *first = 0;
    *second = 0;
    FILE *stream = fopen(path, "re");
    if (!stream) {
        log_error("fopen failed!");
        return;
    }
    parse(stream, first, second);
    fclose(stream);
}

void metrics_cpu_sample(uint64_t *total, uint64_t *idle)
{
    sample("/proc/stat", metrics_cpu_parse, total, idle);
}

void metrics_mem_sample(int32_t *total_kb, int32_t *free_kb)
{
    sample("/proc/meminfo", metrics_mem_parse, total_kb, free_kb);
}

int metrics_usage(char *cpu, size_t cpu_cap, char *mem, size_t mem_cap)
{
    if (!cpu || !cpu_cap || !mem || !mem_cap) {
        log_error("Invalid params!");
        return 0;
    }
    memset(cpu, 0, cpu_cap);
    memset(mem, 0, mem_cap);

    uint64_t total[2], idle[2];
    metrics_cpu_sample(&total[0], &idle[0]);
    if (wait_sleep_ms(CPU_SAMPLE_GAP_MS) == WAIT_CUT)
        return -1;
    metrics_cpu_sample(&total[1], &idle[1]);
    // Smaller than before: the second sample failed, or a processor left the box.
    if (total[1] > total[0] && idle[1] >= idle[0]) {
        double total_delta = (double)(total[1] - total[0]);
        double idle_delta = (double)(idle[1] - idle[0]);
        (void)text_format(cpu, cpu_cap, "%.2lf%%", (total_delta - idle_delta) / total_delta * 100);
    }

    int32_t total_kb, free_kb;
    metrics_mem_sample(&total_kb, &free_kb);
    if (total_kb > 0)
        (void)text_format(mem, mem_cap, "%.2lf%%", ((double)total_kb - free_kb) / total_kb * 100);
    return 0;
}

// Blocks of the file system that path is on; what is there stays when it cannot be asked.
static int disk_blocks(const char *path, uint64_t *used, uint64_t *total)
{
    struct statvfs fs;
    if (statvfs(path, &fs) != 0)
        return -1;
    *total = fs.f_blocks;
    *used = fs.f_blocks - fs.f_bfree;
    return 0;
}

// For the log lines.
static int blocks_shown(uint64_t blocks)
{
    return saturate_i32((int64_t)blocks);
}

void metrics_disk_usage(char *buf, size_t buf_cap)
{
    memset(buf, 0, buf_cap);
    PluginInfo info;
    plugin_info_get(&info);
    uint64_t used = 0, total = 0;
    uint64_t used_sum = 0, total_sum = 0;
    if (info.disk_whitelist[0] == '\0') {
        if (disk_blocks("/", &used, &total) == 0)
            log_debug("used:%d, total:%d", blocks_shown(used), blocks_shown(total));
        used_sum = used;
        total_sum = total;
    } else {
        char list[128];
        (void)text_set(list, info.disk_whitelist);
        char *rest;
        for (char *path = strtok_r(list, ":", &rest); path; path = strtok_r(nullptr, ":", &rest)) {
            (void)disk_blocks(path, &used, &total); // failed: the entry before counts again, NM expects it so
            used_sum += used;
            total_sum += total;
            log_debug("%s used:%d, total:%d", path, blocks_shown(used), blocks_shown(total));
        }
    }
    if (total_sum > 0)
        (void)text_format(buf, buf_cap, "%.2lf%%", (double)used_sum / (double)total_sum * 100);
}

static const uint8_t *address_bytes(const struct sockaddr *address, int family)
{
    return family == AF_INET ? (const uint8_t *)&((const struct sockaddr_in *)address)->sin_addr
                             : (const uint8_t *)&((const struct sockaddr_in6 *)address)->sin6_addr;
}

// Set bits of the mask, up to the first byte that is not full.
static int prefix_length(const struct sockaddr *mask, int family)
{
    if (!mask)
        return 0;
    const uint8_t *bytes = address_bytes(mask, family);
    int count = family == AF_INET ? 4 : 16;
    int bits = 0;
    for (int i = 0; i < count; i++) {
        bits += __builtin_popcount(bytes[i]);
        if (bytes[i] != 0xff)
            break;
    }
    return bits;
}

void metrics_iface_addr(const struct ifaddrs *list, const char *name, int family, char *buf, size_t buf_cap)
{
    if (!list || !name || !name[0] || !buf || !buf_cap) {
        log_error("Invalid params!");
        return;
    }
    for (const struct ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != family || strcmp(entry->ifa_name, name) != 0)
            continue;
        char text[INET6_ADDRSTRLEN];
        if (inet_ntop(family, address_bytes(entry->ifa_addr, family), text, sizeof(text)))
            (void)text_append(buf, buf_cap, "%s/%d ", text, prefix_length(entry->ifa_netmask, family));
    }
}

// A name is excluded where its occurrence in the list ends with an entry's end. What stands before it is not looked at,
// so an entry that ends in the name excludes it too.
bool metrics_is_blacklisted(const char *blacklist, const char *name)
{
    size_t len = strlen(name);
    if (len == 0)
        return false;
    for (const char *hit = strstr(blacklist, name); hit; hit = strstr(hit + 1, name)) {
        if (hit[len] == '\0' || hit[len] == ':')
            return true;
    }
    return false;
}

// The kernel overwrites the union, so each ioctl gets a fresh request.
static struct ifreq iface_request(const char *name)
{
    struct ifreq request = {};
    (void)text_set(request.ifr_name, name);
    return request;
}

static void iface_add_mtu(cJSON *object, int fd, const char *name)
{
    struct ifreq request = iface_request(name);
    char text[VALUE_TEXT_SIZE];
    if (ioctl(fd, SIOCGIFMTU, &request) != 0)
        return;
    (void)text_fmt(text, "%d", request.ifr_mtu);
    cJSON_AddStringToObject(object, "mtu", text);
}

static void iface_add_mac(cJSON *object, int fd, const char *name)
{
    struct ifreq request = iface_request(name);
    char text[VALUE_TEXT_SIZE];
    if (ioctl(fd, SIOCGIFHWADDR, &request) != 0)
        return;
    const unsigned char *mac = (const unsigned char *)request.ifr_hwaddr.sa_data;
    (void)text_fmt(text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    cJSON_AddStringToObject(object, "mac", text);
}

static void iface_add_addresses(cJSON *object, const struct ifaddrs *list, const char *name)
{
    char text[ADDR_TEXT_SIZE] = "";
    metrics_iface_addr(list, name, AF_INET, text, sizeof(text));
    cJSON_AddStringToObject(object, "ipv4", text);
    text[0] = '\0';
    metrics_iface_addr(list, name, AF_INET6, text, sizeof(text));
    cJSON_AddStringToObject(object, "ipv6", text);
}

static void iface_add_link(cJSON *object, int fd, const char *name)
{
    struct ifreq request = iface_request(name);
    if (ioctl(fd, SIOCGIFFLAGS, &request) == 0)
        cJSON_AddStringToObject(object, "linkstatus", request.ifr_flags & IFF_UP ? "up" : "down");

    struct ethtool_cmd command = {};
    command.cmd = ETHTOOL_GSET;
    request = iface_request(name);
    request.ifr_data = (char *)&command;
    if (ioctl(fd, SIOCETHTOOL, &request) != 0)
        return;
    char text[VALUE_TEXT_SIZE];
    uint32_t speed = ethtool_cmd_speed(&command); // both halves: 100 Gb/s does not fit in 16 bits
    if (command.duplex == DUPLEX_HALF)
        (void)text_fmt(text, "half-%u", speed);
    else if (command.duplex == DUPLEX_FULL)
        (void)text_fmt(text, "full-%u", speed);
    else
        (void)text_fmt(text, "unkown-%u", speed);
    cJSON_AddStringToObject(object, "linkSpeed", text);
}

static const struct {
    const char *member;
    const char *file;
} k_counters[] = {
    {"rxbytes", "rx_bytes"},
    {"txbytes", "tx_bytes"},
    {"rxpackets", "rx_packets"},
    {"txpackets", "tx_packets"},
};

static void iface_add_counters(cJSON *object, const char *name)
{
    for (const auto &counter : k_counters) {
        char path[128];
        (void)text_fmt(path, "/sys/class/net/%s/statistics/%s", name, counter.file);
        FILE *stream = fopen(path, "re");
        if (!stream)
            continue;
        unsigned long long value;
        char text[VALUE_TEXT_SIZE];
        if (fscanf(stream, "%qu", &value) == 1) {
            (void)text_fmt(text, "%qu", value);
            cJSON_AddStringToObject(object, counter.member, text);
        }
        fclose(stream);
    }
}

static cJSON *iface_object(int fd, const struct ifaddrs *list, const char *name)
{
    cJSON *object = cJSON_CreateObject();
    cJSON_AddStringToObject(object, "ifname", name);
    cJSON_AddStringToObject(object, "type", "Ethernet");
    const char *dot = strchr(name, '.');
    if (dot) {
        char text[VALUE_TEXT_SIZE];
        (void)text_fmt(text, "%d", (int)saturate_i32(strtoll(dot + 1, nullptr, 10)));
        cJSON_AddStringToObject(object, "vlanid", text);
    }
    iface_add_mtu(object, fd, name);
    iface_add_mac(object, fd, name);
    iface_add_addresses(object, list, name);
    iface_add_link(object, fd, name);
    iface_add_counters(object, name);
    return object;
}

// One record per address, in the kernel's order: of an interface with several only the first counts.
static void ifaces_add(cJSON *array, int fd, const struct ifaddrs *list, const struct ifreq *records, int count)
{
    PluginInfo info;
    plugin_info_get(&info);
    char reported[IFNAME_TEXT_SIZE] = "";
    for (int i = 0; i < count; i++) {
        char name[IFNAMSIZ];
        (void)text_set(name, records[i].ifr_name);
        if (metrics_is_blacklisted(info.interface_blacklist, name))
            continue;
        if (strcmp(name, "lo") == 0 || strcmp(name, reported) == 0)
            continue;
        (void)text_set(reported, name);
        cJSON_AddItemToArray(array, iface_object(fd, list, name));
    }
}

void metrics_interfaces(cJSON *array)
{
    if (!array) {
        log_error("array is NULL!");
        return;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        log_error("socket failed!");
        return;
    }
    struct ifreq records[IFACE_RECORDS] = {};
    struct ifconf conf = {};
    conf.ifc_len = sizeof(records);
    conf.ifc_req = records;
    struct ifaddrs *list = nullptr;
    if (ioctl(fd, SIOCGIFCONF, &conf) != 0) {
        log_error("ioctl error!");
    } else if (getifaddrs(&list) != 0) {
        log_error("getifaddrs failed!");
    } else {
        ifaces_add(array, fd, list, records, conf.ifc_len / (int)sizeof(records[0]));
        freeifaddrs(list);
    }
    close(fd);
}

static void basic_add_times(cJSON *basic)
{
    char text[VALUE_TEXT_SIZE];
    time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    (void)text_fmt(text, "%4d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                   local.tm_hour, local.tm_min, local.tm_sec);
    cJSON_AddStringToObject(basic, "datetime", text);

    int64_t up_s = wait_now_ms() / 1000;
    (void)text_fmt(text, "%02d:%02d:%02d", (int)(up_s / 3600), (int)(up_s / 60 % 60), (int)(up_s % 60));
    cJSON_AddStringToObject(basic, "runtime", text);
}

// 0, or -1 when the second between the processor samples was cut short.
static int basic_add_board(cJSON *basic)
{
    char cpu[USAGE_TEXT_SIZE], mem[USAGE_TEXT_SIZE], disk[USAGE_TEXT_SIZE];
    if (metrics_usage(cpu, sizeof(cpu), mem, sizeof(mem)) != 0)
        return -1;
    metrics_disk_usage(disk, sizeof(disk));
    cJSON *board = cJSON_CreateObject();
    cJSON_AddStringToObject(board, "name", "PrimaryBoard");
    cJSON_AddStringToObject(board, "type", "MASTER");
    cJSON_AddStringToObject(board, "cpuUsage", cpu);
    cJSON_AddStringToObject(board, "memoryUsage", mem);
    cJSON_AddStringToObject(board, "diskUsage", disk);
    if (!cJSON_AddItemToArray(cJSON_AddArrayToObject(basic, "board"), board))
        cJSON_Delete(board);
    return 0;
}

static void run_status_send(const cJSON *document)
{
    char *text = cJSON_Print(document);
    if (!text)
        return;
    (void)tx_nms_message(REPORT_RUN_STATUS, text, strlen(text));
    cJSON_free(text);
}

void report_run_status(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    cJSON *document = cJSON_CreateObject();
    cJSON_AddStringToObject(document, "ver", info.protocol_version);
    cJSON_AddStringToObject(document, "deviceSn", info.dev_sn);
    cJSON *basic = cJSON_AddObjectToObject(document, "basic");
    basic_add_times(basic);
    if (basic_add_board(basic) == 0) {
        metrics_interfaces(cJSON_AddArrayToObject(basic, "interface"));
        run_status_send(document);
    }
    cJSON_Delete(document);
}

void run_status_handler(PluginTimer *)
{
    static std::atomic<bool> s_reporting{false};
    if (s_reporting.exchange(true))
        return;
    CallOff before = nm_wait_begin();
    report_run_status();
    wait_call_off_set(before);
    s_reporting = false;
}
