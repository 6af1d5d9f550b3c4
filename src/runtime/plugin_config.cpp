#include "runtime/plugin_config.h"
#include "runtime/plugin_config_internal.h"

#include <iniparser.h>
#include <stdio.h>
#include <stdlib.h>

#include "runtime/file_util.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/plugin_info.h"

static const char k_path[] = "./config.ini";

constexpr int32_t HTTP_RSP_LEN_DEFAULT = 32768;
constexpr int32_t HTTP_FORWARD_LEN_DEFAULT = 10240;
constexpr int32_t HTTP_LEN_MAX = 1048576;

static void log_std_set(int32_t value)
{
    g_log_std = value;
}

static void log_level_set(int32_t value)
{
    g_log_level = (uint32_t)value;
    printf("Set log_std = %d, log_level = %d.\n", g_log_std.load(), value);
}

// Compared unsigned: a negative length counts as too large.
static void http_rsp_len_set(int32_t value)
{
    if (value == 0) {
        value = HTTP_RSP_LEN_DEFAULT;
        log_warn("g_http_rsp_len is set to 0, use default value: %d!", value);
    } else if ((uint32_t)value > (uint32_t)HTTP_LEN_MAX) {
        value = HTTP_RSP_LEN_DEFAULT;
        log_warn("g_http_rsp_len is larger than 1M, use default value: %d!", value);
    }
    g_http_rsp_len = value;
}

// Compared signed: a negative length is kept, its reader gives it a meaning.
static void http_forward_len_set(int32_t value)
{
    if (value == 0) {
        value = HTTP_FORWARD_LEN_DEFAULT;
        log_warn("g_http_forward_len is set to 0, use default value: %d!", value);
    } else if (value > HTTP_LEN_MAX) {
        value = HTTP_FORWARD_LEN_DEFAULT;
        log_warn("g_http_forward_len is larger than 1M, use default value: %d!", value);
    }
    g_http_forward_len = value;
}

static void sleep_between_http_rsp_set(int32_t value)
{
    g_sleep_between_http_rsp_ms = value;
    log_info("Set g_http_rsp_len = %d, g_http_forward_len = %d, g_sleep_between_http_rsp_ms = %d.\n",
             g_http_rsp_len.load(), g_http_forward_len.load(), value);
}

// One key, in reading order. Integers are stored by set, texts in the field of PluginInfo at offset.
struct ConfigKey {
    const char *key;
    void (*set)(int32_t value); // null: a text
    int32_t int_default;
    const char *text_default;    // null: the device address that was read before
    const char *no_file_default; // without the file
    size_t offset;
    size_t size;
};
#define CONFIG_INT(key, value, set) (ConfigKey{key, set, value, nullptr, nullptr, 0, 0})
#define CONFIG_TEXT(key, value, no_file, field) \
    (ConfigKey{key, nullptr, 0, value, no_file, offsetof(PluginInfo, field), sizeof(PluginInfo::field)})

#define LOOPBACK "127.0.0.1"
#define ANY_IP "0.0.0.0"
static const ConfigKey k_keys[] = {
    CONFIG_INT("plugin_config:log_std", 2, log_std_set),
    CONFIG_INT("plugin_config:log_level", 6, log_level_set),
    CONFIG_TEXT("device_info:device_ip", LOOPBACK, LOOPBACK, dev.remote_ip),
    CONFIG_TEXT("device_info:device_port", "0", "0", dev.remote_port),
    CONFIG_TEXT("device_info:init_cfg", "/tmp/deviceplugin/init", "/tmp/deviceplugin/init", init_cfg_path),
    CONFIG_TEXT("plugin_config:plugin_eth", "eth0", "eth0", plugin_eth),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, ANY_IP, dev.local_ip),
    CONFIG_TEXT("plugin_config:tcp_to_device_local_port", "0", "0", dev.local_port),
    CONFIG_TEXT("device_info:device_web_ip", nullptr, LOOPBACK, dev_web.remote_ip),
    CONFIG_TEXT("device_info:device_web_port", "80", "80", dev_web.remote_port),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, LOOPBACK, dev_web.local_ip), // without the file the device address
    CONFIG_TEXT("plugin_config:web_to_device_local_port", "0", "0", dev_web.local_port),
    CONFIG_TEXT("device_info:device_telnet_ip", nullptr, LOOPBACK, dev_telnet.remote_ip),
    CONFIG_TEXT("device_info:device_telnet_port", "23333", "23333", dev_telnet.remote_port),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, LOOPBACK, dev_telnet.local_ip), // here too
    CONFIG_TEXT("plugin_config:telnet_to_device_local_port", "0", "0", dev_telnet.local_port),
    CONFIG_INT("plugin_config:web_pf_recv_len", HTTP_RSP_LEN_DEFAULT, http_rsp_len_set),
    CONFIG_INT("plugin_config:web_pf_forward_len", HTTP_FORWARD_LEN_DEFAULT, http_forward_len_set),
    CONFIG_INT("plugin_config:web_pf_wait_ms", 100, sleep_between_http_rsp_set),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, ANY_IP, nm_web.local_ip),
    CONFIG_TEXT("plugin_config:web_to_nm_local_port", "0", "0", nm_web.local_port),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, ANY_IP, nm_telnet.local_ip),
    CONFIG_TEXT("plugin_config:telnet_to_nm_local_port", "0", "0", nm_telnet.local_port),
    CONFIG_TEXT("plugin_config:plugin_ip", ANY_IP, ANY_IP, udp_detection.local_ip),
    CONFIG_TEXT("plugin_config:udp_detection_local_port", "0", "0", udp_detection.local_port),
};

bool plugin_config_key_at(size_t index, ConfigKeyInfo *info)
{
    if (index >= sizeof(k_keys) / sizeof(k_keys[0]))
        return false;
    const ConfigKey *key = &k_keys[index];
    *info = {key->key, key->set != nullptr, key->set ? 0 : key->size - 1, 0};
    return true;
}

static void field_set(PluginInfoEdit *edit, const ConfigKey *key, const char *value)
{
    char *field = (char *)&edit->next + key->offset;
    (void)text_copy(field, key->size, value);
    plugin_info_edit_mark(edit, field, key->size);
}

// The stored text, null when there is none (a bare section name counts as none). Keys compare ignoring case.
static const char *ini_find(const dictionary *dict, const char *key)
{
    return iniparser_getstring(dict, key, nullptr);
}

static const char *ini_get_string(const dictionary *dict, const char *key, const char *fallback)
{
    const char *value = ini_find(dict, key);
    if (value) {
        log_info("Key: %s is set to: %s", key, value);
        return value;
    }
    log_info("Key: %s not found, use default: %s", key, fallback);
    return fallback;
}

static int32_t ini_get_int(const dictionary *dict, const char *key, int32_t fallback)
{
    const char *value = ini_find(dict, key);
    if (value) {
        log_info("Key: %s is set to: %s", key, value);
        return saturate_i32(strtoll(value, nullptr, 0)); // 0x hexadecimal, leading 0 octal
    }
    log_info("Key: %s not found, use default: %ld", key, (long)fallback);
    return fallback;
}

static void defaults_set(void)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    for (const ConfigKey &key : k_keys) {
        if (!key.set) // integers keep what is in force
            field_set(&edit, &key, key.no_file_default);
    }
    plugin_info_edit_commit(&edit);
}

static void keys_read(const dictionary *dict)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    const char *device_ip = LOOPBACK;
    for (const ConfigKey &key : k_keys) {
        if (key.set) {
            key.set(ini_get_int(dict, key.key, key.int_default));
            continue;
        }
        const char *value = ini_get_string(dict, key.key, key.text_default ? key.text_default : device_ip);
        field_set(&edit, &key, value);
        if (key.offset == offsetof(PluginInfo, dev.remote_ip))
            device_ip = value;
    }
    plugin_info_edit_commit(&edit);
}

int read_plugin_config(void)
{
    if (!check_file(k_path)) {
        log_warn("%s is not found! Use default value!", k_path);
        defaults_set();
        return 1;
    }
    dictionary *dict = iniparser_load(k_path);
    if (!dict) {
        log_warn("%s is broken! Use default value!", k_path);
        return 1;
    }
    log_info("Reading config file: %s ...", k_path);
    keys_read(dict);
    options_read(dict);
    iniparser_freedict(dict);
    return 1;
}
