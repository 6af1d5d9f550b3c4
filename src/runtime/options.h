// options.h - the optional keys of config.ini: a key that is absent leaves its function off and the log as it is.
// options_read: main thread, with the rest of the file. options_get: any thread.
#pragma once

#include <stdint.h>

struct _dictionary_; // of iniparser

constexpr int OPTION_PATH_SIZE = 256;

struct MonitorOptions {                // [monitor]
    char state_file[OPTION_PATH_SIZE]; // empty: none is written
    char notify_socket[108];           // of the supervisor; empty: none
    int32_t stuck_s;                   // 1 to 86400, 300: a thread longer in one unit of work is stuck
};

struct Options {
    int32_t start_spread_s; // [plugin_config] 0 to 3600, 0: none, see nm_session.h
    MonitorOptions monitor;
};

// Replaces the options by those of the loaded file. Each key that is present gives one info line; a value that is too
// long or out of its bounds an error line, and its default.
void options_read(const struct _dictionary_ *dict);

// The options in force: those of the file that was read last. Defaults before the first one.
void options_get(Options *options);
