// metrics_internal.h - the steps of the run-status report, for tests. Sources: /proc, /sys, statvfs, ioctls. The
// parsers work on streams.
#pragma once

#include <cjson/cJSON.h>
#include <ifaddrs.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// Counters of /proc/stat's aggregate line / of /proc/meminfo in kB; both 0 on failure.
void metrics_cpu_sample(uint64_t *total, uint64_t *idle);
void metrics_mem_sample(int32_t *total_kb, int32_t *free_kb);
void metrics_cpu_parse(FILE *stream, uint64_t *total, uint64_t *idle);
void metrics_mem_parse(FILE *stream, int32_t *total_kb, int32_t *free_kb);

// Usages as percentage texts, empty when unknown. metrics_usage takes one second; 0, or -1 when that was cut short.
int metrics_usage(char *cpu, size_t cpu_cap, char *mem, size_t mem_cap);
void metrics_disk_usage(char *buf, size_t buf_cap);

// Appends "address/prefix " for every address of the interface in the family (AF_INET, AF_INET6).
void metrics_iface_addr(const struct ifaddrs *list, const char *name, int family, char *buf, size_t buf_cap);

// Appends one object per reported interface.
void metrics_interfaces(cJSON *array);

// The blacklist excludes the interface.
bool metrics_is_blacklisted(const char *blacklist, const char *name);

// Builds and posts the run-status document; no report when the wait is cut short meanwhile.
void report_run_status(void);
