// ctl.h - the commands of proxy_pluginctl. Each prints for a person and returns the exit status.
#pragma once

// How the agent fares, from its state file. 0: online, 1: not online, 2: no agent, or a stuck one. as_json: the file as
// it stands.
int ctl_status(const char *config_path, bool as_json);

// What is wrong with the two input files and with what they name, found with the agent's own parsers. Works in the
// directory of config.ini, as the agent does; changes nothing. 0: fine, 1: warnings, 2: the agent would not come
// online.
int ctl_check(const char *config_path);
