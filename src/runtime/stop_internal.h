// stop_internal.h - for tests only; the linker drops it from the agent.
#pragma once

// Back to the state before any request; no other thread may be running agent code.
void stop_reset_for_test(void);
