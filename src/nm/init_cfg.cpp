#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"

#include <cjson/cJSON.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "runtime/file_util.h"
#include "runtime/log.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "transport/field_extract.h"
#include "transport/interface.h"
#include "transport/nm_wait.h"
#include "transport/resolve.h"
#include "transport/socket.h"
#include "transport/tls_verify.h"

constexpr size_t CFG_FILE_MAX = 10240;                 // bytes; what comes behind is not read
constexpr int32_t DEV_MSG_SIZE_MIN = 4096;             // bytes
constexpr int32_t DEV_MSG_SIZE_MAX = 10 * 1024 * 1024; // bytes, a message and the receive buffer alike
constexpr int32_t LOG_FILES_MIN = 1;
constexpr int32_t LOG_FILES_MAX = 10;
constexpr int32_t LOG_SIZE_MIN = 64 * 1024;   // bytes
constexpr int32_t LOG_SIZE_MAX = 1024 * 1024; // bytes

enum CfgKind { CFG_TEXT, CFG_INT }; // an integer is kept as its decimal text

// A key and the text field of PluginInfo that it fills.
struct CfgKey {
    const char *key;
    CfgKind kind;
    size_t offset;
    size_t size;
};
#define CFG_FIELD(member) offsetof(PluginInfo, member), sizeof(PluginInfo::member)
#define CFG_PORT_OF(endpoint) offsetof(PluginInfo, endpoint) + offsetof(Endpoint, remote_port), PORT_TEXT_SIZE

static const CfgKey k_identity_keys[] = {
    {"dev-sn", CFG_TEXT, CFG_FIELD(dev_sn)},        {"ptype", CFG_INT, CFG_FIELD(ptype)},
    {"category", CFG_INT, CFG_FIELD(category)},     {"pversion", CFG_TEXT, CFG_FIELD(pversion)},
    {"pname", CFG_TEXT, CFG_FIELD(pname)},          {"mac", CFG_TEXT, CFG_FIELD(mac)},
    {"dev_server_port", CFG_INT, CFG_PORT_OF(dev)},
};

static const CfgKey k_optional_keys[] = {
    {"device-path", CFG_TEXT, CFG_FIELD(device_path)},
    {"port-path", CFG_TEXT, CFG_FIELD(port_path)},
    {"service-path", CFG_TEXT, CFG_FIELD(service_path)},
    {"interface-blacklist", CFG_TEXT, CFG_FIELD(interface_blacklist)},
    {"disk-whitelist", CFG_TEXT, CFG_FIELD(disk_whitelist)},
    {"platform_name", CFG_TEXT, CFG_FIELD(platform_name)},
    {"factory_name", CFG_TEXT, CFG_FIELD(factory_name)},
};

static const CfgKey k_service_keys[] = {
    {"web_port", CFG_INT, CFG_PORT_OF(dev_web)},
    {"telnet_port", CFG_INT, CFG_PORT_OF(dev_telnet)},
};

// What makes a changed file another device or another NM, in the order of comparison.
struct IdentityKey {
    CfgKey cfg;
    bool ignore_case;
    bool needs_host; // passed over when NM's host is missing or does not resolve
};
static const IdentityKey k_compared_keys[] = {
    {{"dev-sn", CFG_TEXT, CFG_FIELD(dev_sn)}, true, true},
    {{"ptype", CFG_INT, CFG_FIELD(ptype)}, false, true},
    {{"category", CFG_INT, CFG_FIELD(category)}, false, true},
    {{"pversion", CFG_TEXT, CFG_FIELD(pversion)}, false, true},
    {{"pname", CFG_TEXT, CFG_FIELD(pname)}, false, true},
    {{"mac", CFG_TEXT, CFG_FIELD(mac)}, true, true},
    {{"platform_name", CFG_TEXT, CFG_FIELD(platform_name)}, false, false},
    {{"factory_name", CFG_TEXT, CFG_FIELD(factory_name)}, false, false},
    {{"interface", CFG_TEXT, CFG_FIELD(interface)}, false, false},
    {{"localIp", CFG_TEXT, CFG_FIELD(local_ip)}, false, false},
};

// The key's value as the text that its field would hold, empty when missing. 0, or -1 (logged) when missing.
static int key_read(const cJSON *root, const CfgKey *cfg, char *value)
{
    if (cfg->kind == CFG_TEXT)
        return json_get_string(root, cfg->key, value, cfg->size);
    int32_t number;
    value[0] = '\0';
    if (json_get_int(root, cfg->key, &number) != 0)
        return -1;
    (void)text_format(value, cfg->size, "%d", number);
    return 0;
}

// Takes all keys of a table; a missing one empties its field. 0, or -1 when one is missing.
static int keys_take(const cJSON *root, const CfgKey *keys, size_t count, PluginInfoEdit *edit)
{
    int result = 0;
    for (size_t i = 0; i < count; i++) {
        char *field = (char *)&edit->next + keys[i].offset;
        if (key_read(root, &keys[i], field) != 0)
            result = -1;
        plugin_info_edit_mark(edit, field, keys[i].size);
    }
    return result;
}

template <size_t N> static int table_take(const cJSON *root, const CfgKey (&keys)[N], PluginInfoEdit *edit)
{
    return keys_take(root, keys, N, edit);
}

// One text field; 0, or -1 with the field emptied.
template <size_t N> static int text_take(const cJSON *root, const char *key, PluginInfoEdit *edit, char (&field)[N])
{
    int result = json_get_string(root, key, field, N);
    plugin_info_edit_mark(edit, field, N);
    return result;
}

static void int_set(PluginInfoEdit *edit, int32_t *field, int32_t value)
{
    *field = value;
    plugin_info_edit_mark(edit, field, sizeof(*field));
}

// "host" as an address; as it stands, with -1 (logged), when it does not resolve; empty with -1 when missing. name, if
// any: as it was written, truncated.
static int host_read(const cJSON *root, char (&host)[ID_TEXT_SIZE], char (*name)[HOST_TEXT_SIZE] = nullptr)
{
    int result = json_get_string(root, "host", host, sizeof(host));
    if (name)
        (void)text_set(*name, host);
    if (result != 0 || host[0] == '\0')
        return -1;
    return resolve_host(host, sizeof(host));
}

// 0, or -1 (logged) when NM is to be verified, which plain HTTP cannot be.
static int method_check(const char *method)
{
    if (nm_method_is_https(method) || !tls_verify_is_on())
        return 0;
    log_error("NM's method is '%s', but [nm_tls] of config.ini asks for https!", method);
    return -1;
}

// Method, host and port. 0; -1 when something is missing or wrong; *is_port_ok false when nothing behind may be read.
static int nm_take(const cJSON *root, PluginInfoEdit *edit, bool *is_port_ok)
{
    PluginInfo *next = &edit->next;
    int_set(edit, &next->nm_redirected, 0); // goes with the three, should a redirection come in between
    int result = text_take(root, "method", edit, next->nm_method);
    if (result == 0)
        result = method_check(next->nm_method);

    char host[ID_TEXT_SIZE];
    if (host_read(root, host, &next->nm_host) != 0)
        result = -1;
    plugin_info_edit_mark(edit, next->nm_host, sizeof(next->nm_host));
    (void)plugin_info_edit_text(edit, next->nm_ip, host);

    int32_t port = -1;
    (void)json_get_int(root, "port", &port);
    *is_port_ok = (uint32_t)port < 65536;
    if (!*is_port_ok) {
        log_error("Invalid port: %d!", port);
        return -1;
    }
    if (nm_method_is_https(next->nm_method))
        port++; // NM serves TLS on the port behind the plain one
    (void)text_fmt(next->nm_port, "%d", port);
    plugin_info_edit_mark(edit, next->nm_port, sizeof(next->nm_port));
    return result;
}

static void local_ip_set(PluginInfoEdit *edit, const char *ip)
{
    PluginInfo *next = &edit->next;
    (void)plugin_info_edit_text(edit, next->local_ip, ip);
    (void)plugin_info_edit_text(edit, next->nm_web.local_ip, ip);
    (void)plugin_info_edit_text(edit, next->nm_telnet.local_ip, ip);
    (void)plugin_info_edit_text(edit, next->udp_detection.local_ip, ip);
}

// Puts the interface's own address in force, the configured one when it has none. 1 when the interface has one.
static int local_ip_check(PluginInfoEdit *edit, const char *configured)
{
    char detected[IP_TEXT_SIZE] = {};
    if (!get_interface_ip(edit->next.interface, detected)) {
        log_error("Cannot detect IP for interface: %s!", edit->next.interface);
        local_ip_set(edit, configured);
        return 0;
    }
    if (strcmp(configured, detected) != 0)
        log_warn("configured_local_ip: '%s' is different with detected_local_ip: '%s'! Use detected_local_ip: '%s'!",
                 configured, detected, detected);
    else
        log_info("configured_local_ip is equal to detected_local_ip: %s.", detected);
    local_ip_set(edit, detected);
    return 1;
}

// "interface" and "localIp"; result is what the keys before gave, the new one is returned.
static int interface_take(const cJSON *root, PluginInfoEdit *edit, int result)
{
    char configured[ID_TEXT_SIZE];
    bool has_interface = text_take(root, "interface", edit, edit->next.interface) == 0;
    bool has_local_ip = json_get_string(root, "localIp", configured, sizeof(configured)) == 0;
    if (!has_interface || !has_local_ip)
        return -1;
    if (result != 0)
        return result;
    return local_ip_check(edit, configured) ? 0 : 1;
}

static int version_take(const cJSON *root, PluginInfoEdit *edit)
{
    char *version = edit->next.protocol_version;
    (void)text_take(root, "ver", edit, edit->next.protocol_version);
    if (strcasecmp(version, PLUGIN_PROTOCOL_VERSION) == 0)
        return 0;
    log_error("Version mismatch, protocol version: %s, plugin version: %s", version, PLUGIN_PROTOCOL_VERSION);
    return -1;
}

static void loopback_set(PluginInfoEdit *edit)
{
    PluginInfo *next = &edit->next;
    (void)plugin_info_edit_text(edit, next->dev.remote_ip, "127.0.0.1");
    (void)plugin_info_edit_text(edit, next->dev_web.remote_ip, "127.0.0.1");
    (void)plugin_info_edit_text(edit, next->dev_telnet.remote_ip, "127.0.0.1");
}

// kind is "" or " size", as the setting's line says it.
static int32_t bounded(const char *name, int32_t value, int32_t min, int32_t max, const char *kind)
{
    if (value > max) {
        log_warn("g_plugin_info.%s: %d is bigger than the max%s: %d!", name, value, kind, max);
        return max;
    }
    if (value < min) {
        log_warn("g_plugin_info.%s: %d is smaller than the min%s: %d!", name, value, kind, min);
        return min;
    }
    return value;
}

// A size in KiB, kept as bytes within the bounds. 0, or -1 with *size untouched when the key is missing.
static int size_read(const cJSON *root, const char *key, const char *name, int32_t min, int32_t max, const char *kind,
                     int32_t *size)
{
    int32_t kib;
    if (json_get_int(root, key, &kib) != 0)
        return -1;
    *size = bounded(name, saturate_i32((int64_t)kib * 1024), min, max, kind);
    return 0;
}

static void dev_msg_sizes_take(const cJSON *root, PluginInfoEdit *edit)
{
    int32_t msg_size = DEV_MSG_SIZE_MIN;
    (void)size_read(root, "max_dev_msg_size", "max_dev_msg_size", DEV_MSG_SIZE_MIN, DEV_MSG_SIZE_MAX, "", &msg_size);
    int_set(edit, &edit->next.max_dev_msg_size, msg_size);
    log_info("max_dev_msg_size: %d", msg_size);

    int32_t buffer_size = msg_size < DEV_MSG_SIZE_MAX / 4 ? msg_size * 4 : DEV_MSG_SIZE_MAX;
    (void)size_read(root, "dev_msg_buffer_size", "dev_msg_buffer_size", msg_size, DEV_MSG_SIZE_MAX, "", &buffer_size);
    int_set(edit, &edit->next.dev_msg_buffer_size, buffer_size);
    log_info("dev_msg_buffer_size: %d", buffer_size);
}

static void log_path_take(const cJSON *root, PluginInfoEdit *edit)
{
    PluginInfo *next = &edit->next;
    (void)text_take(root, "log_path", edit, next->plugin_log_path);
    char *path = next->plugin_log_path;
    size_t len = strlen(path);
    if (len == 0 || path[len - 1] == '/')
        return;
    log_warn("plugin_log_path: '%s' is not ending with '/', appending it.", path);
    if (text_append(path, sizeof(next->plugin_log_path), "/") != 0)
        path[len - 1] = '/'; // no room: still a directory, never the beginning of file names
}

// The three log keys. A missing limit empties the log path: no log files with half a configuration. Always 0; the type
// is that of cfg_take.
static int log_keys_take(const cJSON *root, PluginInfoEdit *edit)
{
    PluginInfo *next = &edit->next;
    log_path_take(root, edit);

    int32_t files = next->max_log_file_number;
    if (json_get_int(root, "max_files", &files) != 0)
        next->plugin_log_path[0] = '\0';
    files = bounded("max_log_file_number", files, LOG_FILES_MIN, LOG_FILES_MAX, "");
    int_set(edit, &next->max_log_file_number, files);
    log_info("max_log_file_number: %d", files);

    int32_t size = LOG_SIZE_MIN;
    if (size_read(root, "max_size", "max_log_file_size", LOG_SIZE_MIN, LOG_SIZE_MAX, " size", &size) != 0)
        next->plugin_log_path[0] = '\0';
    int_set(edit, &next->max_log_file_size, size);
    log_info("max_log_file_size: %d", size);
    return 0;
}

// Every key into edit; the result of init_cfg_parse.
static int cfg_take(const cJSON *root, PluginInfoEdit *edit)
{
    int result = 0;
    if (!edit->next.nm_redirected) {
        bool is_port_ok;
        result = nm_take(root, edit, &is_port_ok);
        if (!is_port_ok)
            return -1;
    }
    result |= table_take(root, k_identity_keys, edit);
    (void)table_take(root, k_optional_keys, edit);
    result = interface_take(root, edit, result);
    if (version_take(root, edit) != 0)
        result = -1;
    loopback_set(edit);
    if (table_take(root, k_service_keys, edit) != 0)
        result = -1;
    dev_msg_sizes_take(root, edit);
    return result | log_keys_take(root, edit);
}

// The file's tree; null (logged) when it cannot be read (*is_unreadable), parsed, or held in memory. The caller
// deletes it.
static cJSON *cfg_load(bool *is_unreadable)
{
    PluginInfo info;
    plugin_info_get(&info);
    char *text = (char *)calloc(1, CFG_FILE_MAX + 1);
    *is_unreadable = text && read_file(info.init_cfg_path, text, CFG_FILE_MAX) < 1;
    cJSON *root = nullptr;
    if (!text) {
        log_error("malloc failed!");
    } else if (*is_unreadable) {
        log_error("Reading init cfg failed! File path: %s", info.init_cfg_path);
    } else {
        log_info("Reading init cfg successfully. Content: %s", text);
        root = json_parse_logged(text);
    }
    free(text);
    return root;
}

// The same for the two readers that cannot go on without the file: the process ends.
static cJSON *cfg_load_or_stop(void)
{
    bool is_unreadable;
    cJSON *root = cfg_load(&is_unreadable);
    if (is_unreadable)
        stop_process(0);
    return root;
}

struct NmAddress {
    char method[ID_TEXT_SIZE];
    char ip[IP_TEXT_SIZE];
    char port[PORT_TEXT_SIZE];
};

static NmAddress nm_address_get(const PluginInfo *info)
{
    NmAddress nm;
    (void)text_set(nm.method, info->nm_method);
    (void)text_set(nm.ip, info->nm_ip);
    (void)text_set(nm.port, info->nm_port);
    return nm;
}

static bool nm_address_equals(const NmAddress *nm, const PluginInfo *info)
{
    return strcmp(nm->method, info->nm_method) == 0 && strcmp(nm->ip, info->nm_ip) == 0 &&
           strcmp(nm->port, info->nm_port) == 0;
}

// Runs take over the tree, commits what it read, whatever its result, and deletes the tree. With a new address of NM
// what waits for the old one ends.
static int cfg_apply(cJSON *root, int (*take)(const cJSON *root, PluginInfoEdit *edit))
{
    if (!root)
        return -1;
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    NmAddress before = nm_address_get(&edit.next);
    int result = take(root, &edit);
    plugin_info_edit_commit(&edit);
    cJSON_Delete(root);
    if (!nm_address_equals(&before, &edit.next))
        nm_waits_call_off();
    return result;
}

int init_cfg_parse_text(const char *text)
{
    return cfg_apply(json_parse_logged(text), cfg_take);
}

int init_cfg_parse(void)
{
    return cfg_apply(cfg_load_or_stop(), cfg_take);
}

int init_cfg_parse_log(void)
{
    return cfg_apply(cfg_load_or_stop(), log_keys_take);
}

// NM's host against the address in force: 0 equal, 1 different, -1 missing or not resolved.
static int host_compare(const cJSON *root, const PluginInfo *info)
{
    char host[ID_TEXT_SIZE];
    if (host_read(root, host) != 0)
        return -1;
    return strcmp(host, info->nm_ip) != 0;
}

// 0 equal, 1 different, -1 missing.
static int identity_key_compare(const cJSON *root, const IdentityKey *identity, const PluginInfo *info)
{
    char value[ID_TEXT_SIZE];
    const char *field = (const char *)info + identity->cfg.offset;
    if (key_read(root, &identity->cfg, value) != 0)
        return -1;
    return identity->ignore_case ? strcasecmp(value, field) != 0 : strcmp(value, field) != 0;
}

// 0 when all are equal, else 1. Stops at the first difference; a missing key only settles the answer.
static int identity_compare(const cJSON *root, const PluginInfo *info)
{
    int host = host_compare(root, info);
    if (host > 0)
        return 1;
    bool is_missing = host < 0;
    for (const IdentityKey &identity : k_compared_keys) {
        if (identity.needs_host && host < 0)
            continue;
        int compared = identity_key_compare(root, &identity, info);
        if (compared > 0)
            return 1;
        if (compared < 0)
            is_missing = true;
    }
    return is_missing;
}

// Keys that are read one by one.
static const CfgKey k_single_keys[] = {
    {"method", CFG_TEXT, CFG_FIELD(nm_method)}, {"host", CFG_TEXT, CFG_FIELD(nm_ip)},
    {"port", CFG_TEXT, CFG_FIELD(nm_port)},     {"interface", CFG_TEXT, CFG_FIELD(interface)},
    {"localIp", CFG_TEXT, CFG_FIELD(local_ip)}, {"ver", CFG_TEXT, CFG_FIELD(protocol_version)},
};
static const CfgKey k_limit_keys[] = {
    {"max_dev_msg_size", CFG_INT, CFG_FIELD(max_dev_msg_size)},
    {"dev_msg_buffer_size", CFG_INT, CFG_FIELD(dev_msg_buffer_size)},
    {"log_path", CFG_TEXT, CFG_FIELD(plugin_log_path)},
    {"max_files", CFG_INT, CFG_FIELD(max_log_file_number)},
    {"max_size", CFG_INT, CFG_FIELD(max_log_file_size)},
};

// Fields of limits are numbers, the others texts.
static void key_describe(const CfgKey *cfg, bool is_required, bool is_limit, const PluginInfo *info,
                         InitCfgKeyInfo *key)
{
    const char *field = (const char *)info + cfg->offset;
    bool is_number_field = is_limit && cfg->kind == CFG_INT;
    *key = {cfg->key, is_required, cfg->kind == CFG_TEXT ? cfg->size - 1 : 0, ""};
    if (is_number_field)
        (void)text_fmt(key->value, "%d", *(const int32_t *)(const void *)field);
    else
        (void)text_set(key->value, field);
}

bool init_cfg_key_at(size_t index, const PluginInfo *info, InitCfgKeyInfo *key)
{
    static const struct {
        const CfgKey *keys;
        size_t count;
        bool is_required, is_limit;
    } k_tables[] = {
        {k_single_keys, sizeof(k_single_keys) / sizeof(k_single_keys[0]), true, false},
        {k_identity_keys, sizeof(k_identity_keys) / sizeof(k_identity_keys[0]), true, false},
        {k_service_keys, sizeof(k_service_keys) / sizeof(k_service_keys[0]), true, false},
        {k_optional_keys, sizeof(k_optional_keys) / sizeof(k_optional_keys[0]), false, false},
        {k_limit_keys, sizeof(k_limit_keys) / sizeof(k_limit_keys[0]), false, true},
    };
    for (const auto &table : k_tables) {
        if (index < table.count) {
            key_describe(&table.keys[index], table.is_required, table.is_limit, info, key);
            return true;
        }
        index -= table.count;
    }
    return false;
}

int init_cfg_compare(void)
{
    bool is_unreadable;
    cJSON *root = cfg_load(&is_unreadable);
    if (!root)
        return -1;
    PluginInfo info;
    plugin_info_get(&info);
    int result = identity_compare(root, &info);
    cJSON_Delete(root);
    return result;
}

void init_cfg_redirection_forget(void)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    int_set(&edit, &edit.next.nm_redirected, 0);
    plugin_info_edit_commit(&edit);
}
