// options_internal.h - for proxy_pluginctl; the linker drops it from the agent.
#pragma once

#include <stddef.h>

struct ConfigKeyInfo {
    const char *key; // "section:key"
    bool is_number;
    size_t text_cap; // longest text, 0 for a number
    int fallback;    // of an optional number
};

// The optional keys of config.ini by index. False behind the last.
bool options_key_at(size_t index, ConfigKeyInfo *info);
