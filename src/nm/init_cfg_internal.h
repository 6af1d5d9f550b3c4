// init_cfg_internal.h - for tests only; the linker drops it from the agent.
#pragma once

int init_cfg_parse_text(const char *text); // init_cfg_parse behind the file read
