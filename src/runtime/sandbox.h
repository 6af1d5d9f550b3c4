// sandbox.h - what the process gives up once it is up: [plugin_config] sandbox.
// Capabilities and the no-new-privileges flag belong to a thread and are inherited by those that it creates, so this
// is called before any other thread starts.
#pragma once

#include <stdint.h>

// Level 0: nothing, and no log line. 1: drops every capability from all sets and forbids new privileges; one info line.
// 2: the same behind an error line; no filter of system calls is built in.
// 0, or -1 (logged) when the process still has a capability or could get one.
int sandbox_enter(int32_t level);
