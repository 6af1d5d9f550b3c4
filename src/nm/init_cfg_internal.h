// init_cfg_internal.h - for tests and proxy_pluginctl; the linker drops it from the agent.
#pragma once

#include <stddef.h>

#include "runtime/plugin_info.h"

int init_cfg_parse_text(const char *text); // init_cfg_parse behind the file read

struct InitCfgKeyInfo {
    const char *key;
    bool is_required;
    size_t text_cap;          // longest text, 0 for a number
    char value[ID_TEXT_SIZE]; // in force, as text
};

// The keys of the init cfg by index, with what info holds of them. False behind the last.
bool init_cfg_key_at(size_t index, const PluginInfo *info, InitCfgKeyInfo *key);
