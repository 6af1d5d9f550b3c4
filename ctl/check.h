// check.h - the parts of "check"; each adds findings. One thread, in the directory of config.ini.
#pragma once

struct PluginInfo;

// Reads ./config.ini as the agent does, and prints what is in force of it.
void check_config(void);

// Reads the init cfg that config.ini names, and prints what is in force of it. False when nothing behind makes sense.
bool check_init_cfg(void);

// What both files name: services that have to listen, files, directories.
void check_world(void);
