// plugin_config_internal.h - for proxy_pluginctl; the linker drops it from the agent.
#pragma once

#include <stddef.h>

struct ConfigKeyInfo {
    const char *key; // "section:key"
    bool is_number;
    size_t text_cap; // longest text, 0 for a number
    int fallback;    // of an optional number
};

// The keys of config.ini by index: fixed ones, then optional ones. Null behind the last.
bool plugin_config_key_at(size_t index, ConfigKeyInfo *info);
bool options_key_at(size_t index, ConfigKeyInfo *info);
