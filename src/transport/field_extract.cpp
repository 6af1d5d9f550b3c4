#include "transport/field_extract.h"

#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"

constexpr size_t KEY_PATTERN_SIZE = 512;
constexpr size_t KEY_VALUE_SIZE = 512; // the longest value of a key, with its NUL, whatever room the caller has

// Inside the brackets the bar and the backslash are members of the set.
#define KEY_PATTERN_HEAD "\"%s\" *:[ |\"|{|}]*"
#define KEY_PATTERN KEY_PATTERN_HEAD "([-|a-z|A-Z|0-9|\\.|/|:|_|$]*)"
#define TOKEN_PATTERN KEY_PATTERN_HEAD "([-|a-z|A-Z|0-9|\\.|/|:|_|$|%%| ]*)"

static void key_pattern_make(char (&pattern)[KEY_PATTERN_SIZE], const char *key)
{
    if (strcmp(key, "token") == 0)
        (void)text_fmt(pattern, TOKEN_PATTERN, key);
    else
        (void)text_fmt(pattern, KEY_PATTERN, key);
}

static void key_value_take(const char *key, const char *matched, int matched_len, char *value, size_t value_cap)
{
    size_t cap = value_cap < KEY_VALUE_SIZE ? value_cap : KEY_VALUE_SIZE;
    if (cap <= (size_t)matched_len) {
        int shown = matched_len < (int)KEY_VALUE_SIZE ? matched_len : (int)KEY_VALUE_SIZE - 1;
        log_warn("value_len: %d not enough, needed matched_len: %d, matched_str: %.*s!", (int)cap, matched_len + 1,
                 shown, matched);
        return;
    }
    memcpy(value, matched, (size_t)matched_len);
    log_debug("Matched! %s: %s", key, value);
}

void json_key_extract(const char *msg, const char *key, char *value, size_t value_cap)
{
    if (!msg)
        log_error("msg is NULL!");
    if (!key)
        log_error("key is NULL!");
    if (!msg || !key)
        return;
    memset(value, 0, value_cap);
    char pattern[KEY_PATTERN_SIZE];
    key_pattern_make(pattern, key);
    regex_t compiled;
    if (regex_compile(&compiled, pattern) != 0)
        return;
    regmatch_t pmatch[2];
    int result = regexec(&compiled, msg, 2, pmatch, 0);
    regfree(&compiled);
    if (result == REG_NOMATCH) {
        log_debug("No match for \"%s\", msg: %s", key, msg);
    } else if (result == 0 && pmatch[1].rm_so >= 0) {
        key_value_take(key, msg + pmatch[1].rm_so, (int)(pmatch[1].rm_eo - pmatch[1].rm_so), value, value_cap);
    } else {
        log_warn("Unknown status: %d", result);
        log_info("No match for %s, msg: %s", key, msg);
    }
}

int json_get_string(const cJSON *object, const char *key, char *buf, size_t buf_cap)
{
    if (!object || !key || !buf || buf_cap == 0) {
        log_warn("Invalid parameters!");
        return -1;
    }
    memset(buf, 0, buf_cap);
    const char *value = cJSON_GetStringValue(cJSON_GetObjectItem(object, key));
    if (!value) {
        log_warn("Not found string value for key: %s!", key);
        return -1;
    }
    (void)text_copy(buf, buf_cap, value);
    return 0;
}

int json_get_int(const cJSON *object, const char *key, int32_t *value)
{
    if (!object || !key || !value) {
        log_warn("Invalid parameters!");
        return -1;
    }
    const cJSON *item = cJSON_GetObjectItem(object, key);
    if (!cJSON_IsNumber(item)) {
        log_warn("Not found int value for key: %s!", key);
        return -1;
    }
    *value = item->valueint;
    return 0;
}

cJSON *json_parse_logged(const char *text)
{
    const char *error_place = nullptr;
    cJSON *root = cJSON_ParseWithOpts(text, &error_place, 0);
    if (!root && error_place)
        log_warn("Error before JSON content: %s", g_log_secrets != 0 ? error_place : "***"); // may begin in a value
    return root;
}
