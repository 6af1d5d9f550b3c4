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

struct NmTlsOptions {                   // [nm_tls]
    char ca_file[OPTION_PATH_SIZE];     // PEM; empty: no chain is verified
    char server_name[256];              // name or address in NM's certificate; empty: the host that was dialled
    char pin_sha256[512];               // base64 of public keys' SHA-256, separated by blanks; empty: any key
    char client_cert[OPTION_PATH_SIZE]; // PEM; empty: none is sent
    char client_key[OPTION_PATH_SIZE];
    int32_t check_time;          // 0 or 1: the dates of certificates count
    int32_t handshake_timeout_s; // 0 to 3600, 0: none
    int32_t is_unusable;         // a value of the section is wrong or a key unknown: NM is refused
};

struct Options {
    int32_t start_spread_s; // [plugin_config] 0 to 3600, 0: none, see nm_session.h
    MonitorOptions monitor;
    NmTlsOptions nm_tls;
    int32_t log_secrets; // [plugin_config] 0 or 1, see g_log_secrets
};

// Replaces the options by those of the loaded file. Each key that is present gives one info line; a value that is too
// long or out of its bounds an error line, and its default. In [nm_tls] the default would be "not verified": there such
// a value, and a key that nobody knows, sets is_unusable.
void options_read(const struct _dictionary_ *dict);

// The options in force: those of the file that was read last. Defaults before the first one.
void options_get(Options *options);
