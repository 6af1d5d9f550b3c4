// resolve.h - name look-up. Any thread; no state.
#pragma once

#include <netinet/in.h>
#include <stddef.h>

// Replaces the name in buffer by its first IPv4 address as dotted text, truncated to cap. 0, or -1 (logged) without an
// address; -1, unlogged, for a null or empty buffer or no room.
// Blocks for up to some 30 s; neither a stop nor a call-off ends it, so no lock may be held.
int resolve_host(char *buffer, size_t cap);

// Whether address is one of the IPv4 addresses that name has now. False, logged, when the name has none. Blocks as
// resolve_host does.
bool resolve_host_has(const char *name, const struct in_addr *address);
