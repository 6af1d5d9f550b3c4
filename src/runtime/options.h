// options.h - the optional keys of config.ini: a key that is absent leaves its function off and the log as it is.
// options_read: main thread, with the rest of the file. options_get: any thread.
#pragma once

#include <stdint.h>

struct _dictionary_; // of iniparser

constexpr int OPTION_PATH_SIZE = 256;
constexpr int OPTION_HOSTS_SIZE = 1024;

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
    bool is_unusable;            // a value or a key of the section is wrong: NM is refused
};

struct RemoteAccessOptions {             // [remote_access]
    bool is_unusable;                    // a value or a key of the section is wrong: every tunnel is refused
    int32_t web, telnet;                 // 1; 0: the tunnel is refused
    char allow_hosts[OPTION_HOSTS_SIZE]; // permitted tunnel ends (remote/remote_policy.h); empty: any
    int32_t idle_s, max_s;               // 0 to 31536000 (a year); 0: none
    char audit_file[OPTION_PATH_SIZE];   // empty: none is written
};

struct Options {
    int32_t start_spread_s; // [plugin_config] 0 to 3600, 0: none, see nm_session.h
    MonitorOptions monitor;
    NmTlsOptions nm_tls;
    RemoteAccessOptions remote_access;
    int32_t log_secrets; // [plugin_config] 0 or 1, see g_log_secrets
    int32_t sandbox;     // [plugin_config], 0 to 2 (runtime/sandbox.h); 0 by default, 1 for a bad value
};

// Replaces the options by those of the loaded file. Each key that is present gives one info line; a value that is too
// long or out of its bounds an error line, and its default. In [nm_tls] and [remote_access] a default would permit what
// was to be refused: there such a value, or a key that nobody knows, makes the section unusable (one more error line).
void options_read(const struct _dictionary_ *dict);

// The options in force: those of the file that was read last. Defaults before the first one.
void options_get(Options *options);
