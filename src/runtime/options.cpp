#include "runtime/options.h"
#include "runtime/options_internal.h"

#include <errno.h>
#include <iniparser.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"

// A text of at most size - 1 bytes when size is not 0, else a number from min to max.
struct OptionKey {
    const char *key;
    size_t offset;
    size_t size;
    int32_t fallback, min, max;
};
#define OPTION_TEXT(key, field) (OptionKey{key, offsetof(Options, field), sizeof(Options::field), 0, 0, 0})
#define OPTION_INT(key, field, fallback, min, max) (OptionKey{key, offsetof(Options, field), 0, fallback, min, max})

static const OptionKey k_keys[] = {
    OPTION_INT("plugin_config:start_spread_s", start_spread_s, 0, 0, 3600),
    OPTION_TEXT("monitor:state_file", monitor.state_file),
    OPTION_TEXT("monitor:notify_socket", monitor.notify_socket),
    OPTION_INT("monitor:stuck_s", monitor.stuck_s, 300, 1, 86400),
    OPTION_TEXT("nm_tls:ca_file", nm_tls.ca_file),
    OPTION_TEXT("nm_tls:server_name", nm_tls.server_name),
    OPTION_TEXT("nm_tls:pin_sha256", nm_tls.pin_sha256),
    OPTION_TEXT("nm_tls:client_cert", nm_tls.client_cert),
    OPTION_TEXT("nm_tls:client_key", nm_tls.client_key),
    OPTION_INT("nm_tls:check_time", nm_tls.check_time, 1, 0, 1),
    OPTION_INT("nm_tls:handshake_timeout_s", nm_tls.handshake_timeout_s, 0, 0, 3600),
    OPTION_INT("plugin_config:log_secrets", log_secrets, 1, 0, 1),
};

static const char k_strict_section[] = "nm_tls";
constexpr int STRICT_KEYS_MAX = 32;

bool options_key_at(size_t index, ConfigKeyInfo *info)
{
    if (index >= sizeof(k_keys) / sizeof(k_keys[0]))
        return false;
    const OptionKey *key = &k_keys[index];
    *info = {key->key, key->size == 0, key->size > 0 ? key->size - 1 : 0, key->fallback};
    return true;
}

static pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER; // short
static Options s_options;                                  // under s_lock
static bool s_is_read;                                     // under s_lock

// 0, or -1 (logged) with the field emptied.
static int text_read(const OptionKey *key, const char *value, char *field)
{
    if (text_copy(field, key->size, value) == 0)
        return 0;
    field[0] = '\0';
    log_error("Key: %s is longer than %u bytes and ignored!", key->key, (unsigned)key->size - 1);
    return -1;
}

// 0, or -1 (logged) with the field as it was.
static int int_read(const OptionKey *key, const char *value, int32_t *field)
{
    char *end;
    errno = 0;
    long long number = strtoll(value, &end, 0);
    if (errno == 0 && end != value && *end == '\0' && number >= key->min && number <= key->max) {
        *field = (int32_t)number;
        return 0;
    }
    log_error("Key: %s is not a number from %d to %d, use default: %d!", key->key, key->min, key->max, *field);
    return -1;
}

static int value_read(const OptionKey *key, const char *value, char *field)
{
    return key->size == 0 ? int_read(key, value, (int32_t *)(void *)field) : text_read(key, value, field);
}

static bool is_strict(const char *key)
{
    size_t len = strlen(k_strict_section);
    return strncmp(key, k_strict_section, len) == 0 && key[len] == ':';
}

static bool is_known(const char *name)
{
    for (const OptionKey &key : k_keys) {
        if (strcmp(key.key, name) == 0)
            return true;
    }
    return false;
}

// A misspelt key of the strict section must not read as one that is absent.
static bool has_unknown_key(const dictionary *dict)
{
    const char *names[STRICT_KEYS_MAX];
    int count = iniparser_getsecnkeys(dict, k_strict_section);
    if (count <= 0)
        return false;
    if (count > STRICT_KEYS_MAX || !iniparser_getseckeys(dict, k_strict_section, names))
        return true;
    for (int i = 0; i < count; i++) {
        if (!is_known(names[i])) {
            log_error("Key: %s is unknown!", names[i]);
            return true;
        }
    }
    return false;
}

// dict may be null: defaults.
static void options_fill(Options *options, const dictionary *dict)
{
    *options = {};
    bool is_unusable = dict && has_unknown_key(dict);
    for (const OptionKey &key : k_keys) {
        char *field = (char *)options + key.offset;
        if (key.size == 0)
            memcpy(field, &key.fallback, sizeof(key.fallback));
        const char *value = dict ? iniparser_getstring(dict, key.key, nullptr) : nullptr;
        if (!value)
            continue;
        log_info("Key: %s is set to: %s", key.key, value);
        if (value_read(&key, value, field) != 0 && is_strict(key.key))
            is_unusable = true;
    }
    options->nm_tls.is_unusable = is_unusable;
    if (is_unusable)
        log_error("[%s] cannot be used as it stands, every NM is refused!", k_strict_section);
}

void options_read(const dictionary *dict)
{
    Options next;
    options_fill(&next, dict);
    g_log_secrets = next.log_secrets;
    pthread_mutex_lock(&s_lock);
    s_options = next;
    s_is_read = true;
    pthread_mutex_unlock(&s_lock);
}

void options_get(Options *options)
{
    pthread_mutex_lock(&s_lock);
    if (!s_is_read)
        options_fill(&s_options, nullptr); // logs nothing
    s_is_read = true;
    *options = s_options;
    pthread_mutex_unlock(&s_lock);
}
