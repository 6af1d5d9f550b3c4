// metrics.h - the device's health as NM wants it: processor, memory, disk, interfaces, from /proc, /sys, statvfs,
// ioctls. Parsers work on streams, so tests feed them fixtures. report_run_status takes a second or more; timer threads
// only.
#pragma once

#include <cjson/cJSON.h>
#include <ifaddrs.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "runtime/timer.h"

// Counters of /proc/stat's aggregate line / of /proc/meminfo in kB; both 0 on failure.
void metrics_cpu_sample(uint64_t *total, uint64_t *idle);
void metrics_mem_sample(int32_t *total_kb, int32_t *free_kb);
void metrics_cpu_parse(FILE *stream, uint64_t *total, uint64_t *idle);
void metrics_mem_parse(FILE *stream, int32_t *total_kb, int32_t *free_kb);

// Usages as percentage texts, empty when unknown. Takes one second; 0, or -1 when that second was cut.
int metrics_usage(char *cpu, size_t cpu_cap, char *mem, size_t mem_cap);
void metrics_disk_usage(char *buf, size_t buf_cap);

// Appends "address/prefix " for every address of the interface in the family (AF_INET, AF_INET6).
void metrics_iface_addr(const struct ifaddrs *list, const char *name, int family, char *buf, size_t buf_cap);

// Appends one object per reported interface.
void metrics_interfaces(cJSON *array);

// 1 when the blacklist excludes the interface.
int metrics_is_blacklisted(const char *blacklist, const char *name);

// Builds and posts the run-status document; no report when the process stops meanwhile.
void report_run_status(void);

// Timer callback of the run-status timer: report_run_status, an expiry during a running report is passed over.
void run_status_handler(PluginTimer *timer);
