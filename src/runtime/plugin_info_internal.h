// plugin_info_internal.h - for tests only; the linker drops it from the agent.
#pragma once

// Everything back to the compiled-in values.
void plugin_info_reset_for_test(void);
