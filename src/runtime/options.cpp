#include "runtime/options.h"
#include "runtime/plugin_config_internal.h"

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
};

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

static void text_read(const OptionKey *key, const char *value, char *field)
{
    if (text_copy(field, key->size, value) == 0)
        return;
    field[0] = '\0';
    log_error("Key: %s is longer than %u bytes and ignored!", key->key, (unsigned)key->size - 1);
}

static void int_read(const OptionKey *key, const char *value, int32_t *field)
{
    char *end;
    errno = 0;
    long long number = strtoll(value, &end, 0);
    if (errno == 0 && end != value && *end == '\0' && number >= key->min && number <= key->max)
        *field = (int32_t)number;
    else
        log_error("Key: %s is not a number from %d to %d, use default: %d!", key->key, key->min, key->max, *field);
}

// dict may be null: defaults.
static void options_fill(Options *options, const dictionary *dict)
{
    *options = {};
    for (const OptionKey &key : k_keys) {
        char *field = (char *)options + key.offset;
        if (key.size == 0)
            memcpy(field, &key.fallback, sizeof(key.fallback));
        const char *value = dict ? iniparser_getstring(dict, key.key, nullptr) : nullptr;
        if (!value)
            continue;
        log_info("Key: %s is set to: %s", key.key, value);
        if (key.size == 0)
            int_read(&key, value, (int32_t *)(void *)field);
        else
            text_read(&key, value, field);
    }
}

void options_read(const dictionary *dict)
{
    Options next;
    options_fill(&next, dict);
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
