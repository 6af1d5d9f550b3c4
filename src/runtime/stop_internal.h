// stop_internal.h - for tests only; the linker drops it from the agent.
#pragma once

// Status of the recorded request, -1 without one.
int stop_status(void);

// Back to the state before any request; no other thread may be running agent code.
void stop_reset_for_test(void);
