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
    int32_t bad; // what stands for a value that is no such number
};
#define OPTION_TEXT(key, field) (OptionKey{key, offsetof(Options, field), sizeof(Options::field), 0, 0, 0, 0})
#define OPTION_INT(key, field, fallback, min, max) OPTION_INT_BAD(key, field, fallback, min, max, fallback)
#define OPTION_INT_BAD(key, field, fallback, min, max, bad) \
    (OptionKey{key, offsetof(Options, field), 0, fallback, min, max, bad})

constexpr int32_t YEAR_S = 31536000;

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
    OPTION_INT("remote_access:web", remote_access.web, 1, 0, 1),
    OPTION_INT("remote_access:telnet", remote_access.telnet, 1, 0, 1),
    OPTION_TEXT("remote_access:allow_hosts", remote_access.allow_hosts),
    OPTION_INT("remote_access:idle_s", remote_access.idle_s, 0, 0, YEAR_S),
    OPTION_INT("remote_access:max_s", remote_access.max_s, 0, 0, YEAR_S),
    OPTION_TEXT("remote_access:audit_file", remote_access.audit_file),
    OPTION_INT_BAD("plugin_config:sandbox", sandbox, 0, 0, 2, 1),
};

// A section whose mistakes must not read as keys that are absent.
struct StrictSection {
    const char *name;
    size_t is_unusable; // offset of the flag
    const char *effect;
};

static const StrictSection k_strict_sections[] = {
    {"nm_tls", offsetof(Options, nm_tls.is_unusable), "every NM is refused"},
    {"remote_access", offsetof(Options, remote_access.is_unusable), "every tunnel is refused"},
};
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

// 0, or -1 (logged) with the number for a bad value.
static int int_read(const OptionKey *key, const char *value, int32_t *field)
{
    char *end;
    errno = 0;
    long long number = strtoll(value, &end, 0);
    if (errno == 0 && end != value && *end == '\0' && number >= key->min && number <= key->max) {
        *field = (int32_t)number;
        return 0;
    }
    *field = key->bad;
    log_error("Key: %s is not a number from %d to %d, use default: %d!", key->key, key->min, key->max, key->bad);
    return -1;
}

// 0, or -1 for a bad value. An absent key has the default and no log line.
static int key_read(const OptionKey *key, const dictionary *dict, Options *options)
{
    char *field = (char *)options + key->offset;
    if (key->size == 0)
        memcpy(field, &key->fallback, sizeof(key->fallback));
    const char *value = dict ? iniparser_getstring(dict, key->key, nullptr) : nullptr;
    if (!value)
        return 0;
    log_info("Key: %s is set to: %s", key->key, value);
    return key->size == 0 ? int_read(key, value, (int32_t *)(void *)field) : text_read(key, value, field);
}

static bool is_of_section(const char *key, const char *section)
{
    size_t len = strlen(section);
    return strncmp(key, section, len) == 0 && key[len] == ':';
}

static bool is_known(const char *name)
{
    for (const OptionKey &key : k_keys) {
        if (strcmp(key.key, name) == 0)
            return true;
    }
    return false;
}

static bool has_unknown_key(const dictionary *dict, const char *section)
{
    const char *names[STRICT_KEYS_MAX];
    int count = iniparser_getsecnkeys(dict, section);
    if (count <= 0)
        return false;
    if (count > STRICT_KEYS_MAX || !iniparser_getseckeys(dict, section, names))
        return true;
    for (int i = 0; i < count; i++) {
        if (!is_known(names[i])) {
            log_error("Key: %s is unknown!", names[i]);
            return true;
        }
    }
    return false;
}

static void section_refuse(Options *options, const StrictSection *section)
{
    *((bool *)(void *)((char *)options + section->is_unusable)) = true;
    log_error("[%s] cannot be used as it stands, %s!", section->name, section->effect);
}

// dict may be null: defaults.
static void options_fill(Options *options, const dictionary *dict)
{
    constexpr size_t SECTIONS = sizeof(k_strict_sections) / sizeof(k_strict_sections[0]);
    bool is_bad[SECTIONS] = {};
    *options = {};
    for (size_t i = 0; dict && i < SECTIONS; i++)
        is_bad[i] = has_unknown_key(dict, k_strict_sections[i].name);
    for (const OptionKey &key : k_keys) {
        bool key_is_bad = key_read(&key, dict, options) != 0;
        for (size_t i = 0; key_is_bad && i < SECTIONS; i++)
            is_bad[i] |= is_of_section(key.key, k_strict_sections[i].name);
    }
    for (size_t i = 0; i < SECTIONS; i++) {
        if (is_bad[i])
            section_refuse(options, &k_strict_sections[i]);
    }
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
