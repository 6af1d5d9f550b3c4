#include "ctl/check.h"

#include <cjson/cJSON.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/findings.h"
#include "nm/init_cfg_internal.h"
#include "runtime/file_util.h"

constexpr size_t CFG_FILE_MAX = 10240; // bytes that the agent reads

// Says where the text stops being JSON.
static void json_error_tell(const char *path, const char *text, const char *at)
{
    int line = 1;
    for (const char *c = text; c < at; c++)
        line += *c == '\n';
    finding_add(SEVERITY_FATAL, "%s is no JSON from line %d on: mend it there or shortly before", path, line);
}

// The member's text as it stands in the file; "" without a text or number.
static void raw_get(const cJSON *root, const char *key, char (&raw)[ID_TEXT_SIZE])
{
    const cJSON *item = cJSON_GetObjectItem(root, key);
    raw[0] = '\0';
    if (cJSON_IsString(item))
        (void)text_set(raw, item->valuestring);
    else if (cJSON_IsNumber(item))
        (void)text_fmt(raw, "%.0f", item->valuedouble);
}

static void key_check(const InitCfgKeyInfo *key, const cJSON *item)
{
    bool is_text = key->text_cap > 0;
    if (!item && key->is_required)
        finding_add(SEVERITY_FATAL, "\"%s\" is missing in the init cfg: the device has to write it", key->key);
    else if (item && is_text != (bool)cJSON_IsString(item) && strcmp(key->key, "port") != 0)
        finding_add(key->is_required ? SEVERITY_FATAL : SEVERITY_WARNING, "\"%s\" of the init cfg has to be a %s",
                    key->key, is_text ? "text" : "number");
    bool is_replaced = strcmp(key->key, "host") == 0 || strcmp(key->key, "port") == 0; // by an address, by TLS's port
    const char *text = cJSON_GetStringValue(item);
    if (is_text && !is_replaced && text && strlen(text) > key->text_cap)
        finding_add(SEVERITY_WARNING, "\"%s\" of the init cfg is cut to %u characters: write a shorter value", key->key,
                    (unsigned)key->text_cap);
}

static void keys_show(const cJSON *root)
{
    PluginInfo info;
    plugin_info_get(&info);
    InitCfgKeyInfo key;
    for (size_t i = 0; init_cfg_key_at(i, &info, &key); i++) {
        char raw[ID_TEXT_SIZE];
        const cJSON *item = cJSON_GetObjectItem(root, key.key);
        raw_get(root, key.key, raw);
        key_check(&key, item);
        printf("%-42s %-34s init cfg", key.key, key.value);
        if (!item)
            printf(", default");
        else if (strcmp(raw, key.value) != 0)
            printf(": %s", raw);
        printf("\n");
    }
}

bool check_init_cfg(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    static char s_text[CFG_FILE_MAX + 1];
    struct stat st;
    if (read_file(info.init_cfg_path, s_text, CFG_FILE_MAX) < 1) {
        finding_add(SEVERITY_FATAL, "init cfg %s %s: the device has to write it before the agent starts",
                    info.init_cfg_path, access(info.init_cfg_path, R_OK) == 0 ? "is empty" : "cannot be read");
        return false;
    }
    if (stat(info.init_cfg_path, &st) == 0 && st.st_size > (off_t)CFG_FILE_MAX)
        finding_add(SEVERITY_FATAL, "init cfg %s is longer than the %u bytes that the agent reads", info.init_cfg_path,
                    (unsigned)CFG_FILE_MAX);
    cJSON *root = cJSON_Parse(s_text);
    if (!root) {
        json_error_tell(info.init_cfg_path, s_text, cJSON_GetErrorPtr());
        return false;
    }
    if (init_cfg_parse_text(s_text) != 0)
        finding_add(SEVERITY_FATAL, "init cfg %s is not accepted: mend what is told of it here", info.init_cfg_path);
    keys_show(root);
    cJSON_Delete(root);
    return true;
}
