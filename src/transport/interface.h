// interface.h - the address of a named network interface. Any thread; no state.
#pragma once

#include "runtime/plugin_info.h"

// 1 when the interface exists, is up and has an IPv4 address, written to ip as dotted text; else 0. Looks at the first
// 16 interfaces that have an address.
int get_interface_ip(const char *interface, char (&ip)[IP_TEXT_SIZE]);
