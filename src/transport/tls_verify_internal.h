// tls_verify_internal.h - for tests only.
#pragma once

#include <atomic>
#include <stdint.h>

extern std::atomic<int64_t> g_tls_clock_for_test; // seconds since 1970 that decide whether dates count; 0: the clock
