// plugin_config_internal.h - for proxy_pluginctl; the linker drops it from the agent.
#pragma once

#include "runtime/options_internal.h"

// The fixed keys of config.ini by index. False behind the last.
bool plugin_config_key_at(size_t index, ConfigKeyInfo *info);
