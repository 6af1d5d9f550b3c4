#include "nm/nm_msg.h"
#include "nm/nm_msg_internal.h"

#include <cjson/cJSON.h>
#include <stdlib.h>
#include <string.h>

#include "device/dev_msg_send.h"
#include "runtime/file_util.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/conn_registry.h"
#include "transport/field_extract.h"
#include "transport/nm_post.h"

constexpr size_t TYPE_SIZE = 512;
constexpr int TABLE_SIZE = 64;
constexpr size_t TABLE_TYPE_SIZE = 32;
constexpr size_t STATUS_FILE_SIZE = 10240; // at most; also the room for NM's answer, which nobody reads

struct NmMsgEntry {
    NmMsgHandler handler; // null: free
    char type[TABLE_TYPE_SIZE];
};
static NmMsgEntry nm_msg_table[TABLE_SIZE]; // written at start-up only, so read without a lock

int nm_msg_register(const char *type, NmMsgHandler handler, const char *handler_name)
{
    for (NmMsgEntry &entry : nm_msg_table) {
        if (entry.handler)
            continue;
        (void)text_set(entry.type, type);
        entry.handler = handler;
        log_debug("Msg: %s is registered as %s", type, handler_name);
        return 0;
    }
    log_error("The table of NM messages is full! Msg: %s is not registered!", type);
    return -1;
}

// Free entries have an empty type, as a payload without a type has: the handler decides first.
static NmMsgHandler handler_find(const char *type)
{
    for (const NmMsgEntry &entry : nm_msg_table) {
        if (entry.handler && strcmp(entry.type, type) == 0)
            return entry.handler;
    }
    return nullptr;
}

int nm_msg_process(uintptr_t context, const char *answer)
{
    log_info("Receive command: %s", answer ? answer : "(null)");
    char payload[NM_PAYLOAD_SIZE] = {};
    if (nm_payload_extract(answer, payload, sizeof(payload), nullptr) != 0) {
        log_warn("parsing payload failed!");
        return -1;
    }
    if (payload[0] == '\0') {
        log_info("Receive empty payload");
        return 0;
    }
    log_info("Payload: %s", payload);
    char type[TYPE_SIZE] = {};
    if (nm_msg_type_parse(payload, type, sizeof(type)) != 0) {
        log_warn("msg_type_parse failed, no matching for 'type'");
        return -1;
    }
    NmMsgHandler handler = handler_find(type);
    if (!handler) {
        log_warn("Unknown msg: %s!", answer);
        return -1;
    }
    log_info("Processing msg: '%s' ...", type);
    return handler(context, answer, payload, (uint32_t)strlen(payload));
}

// Copies text unless it does not fit. 0, or -1 (logged).
static int value_take(const char *text, char *buf, size_t buf_cap)
{
    size_t len = strlen(text);
    if (len >= buf_cap) {
        log_warn("value_len: %d not enough, needed matched_len: %d, matched_str: %s!", (int)buf_cap, (int)len + 1,
                 text);
        return -1;
    }
    return text_copy(buf, buf_cap, text);
}

// Prints one child of the payload over what buf holds.
static int payload_child_take(const cJSON *child, char *buf, size_t buf_cap, uint32_t *payload_len)
{
    char *text = cJSON_PrintUnformatted(child);
    if (!text)
        return -1;
    log_debug("payload = %s", text);
    if (payload_len)
        *payload_len = (uint32_t)strlen(text);
    int result = value_take(text, buf, buf_cap);
    cJSON_free(text);
    return result;
}

int nm_payload_extract(const char *answer, char *buf, size_t buf_cap, uint32_t *payload_len)
{
    if (!answer) {
        log_error("msg is NULL!");
        return -1;
    }
    cJSON *root = json_parse_logged(answer);
    if (!root)
        return -1;
    const cJSON *payload = cJSON_GetObjectItem(cJSON_GetObjectItem(root, "result"), "payload");
    const cJSON *child = nullptr;
    int result = 0;
    cJSON_ArrayForEach(child, payload) // NM sends an array of messages; the last one is in force
    {
        result = payload_child_take(child, buf, buf_cap, payload_len);
        if (result != 0)
            break;
    }
    cJSON_Delete(root);
    return result;
}

int nm_msg_type_parse(const char *payload, char *buf, size_t buf_cap)
{
    if (!payload) {
        log_error("payload is NULL!");
        return -1;
    }
    cJSON *root = json_parse_logged(payload);
    if (!root)
        return -1;
    int result = 0;
    const char *type = cJSON_GetStringValue(cJSON_GetObjectItem(root, "type"));
    if (type) {
        log_debug("type = %s", type);
        result = value_take(type, buf, buf_cap);
    }
    cJSON_Delete(root);
    return result;
}

int nm_msg_forwarding(uintptr_t, const char *, const char *payload, uint32_t payload_len)
{
    uint8_t prefix[DEV_FRAME_HEADER_SIZE];
    le32_put(prefix, payload_len);
    ConnectionInfo device = conn_info_get(DEV_TCP);
    log_info("Forwarding message to %s:%s, len: %d (HEX: 0x%02x 0x%02x 0x%02x 0x%02x ), content: %s ",
             device.conn.remote_ip, device.conn.remote_port, (int)payload_len, prefix[0], prefix[1], prefix[2],
             prefix[3], payload);
    (void)dev_frame_send(payload, payload_len);
    return 0;
}

// A status file that the device keeps up to date and NM asks for.
struct StatusFile {
    const char *name; // in the log lines
    char (PluginInfo::*path)[PATH_TEXT_SIZE];
    const char *uri_tail;
    bool is_logged; // with its content
};

// Reads a status file whole into fresh text (caller frees). Null when nothing was read.
static char *status_file_read(const char *path)
{
    char *text = (char *)calloc(1, STATUS_FILE_SIZE + 1);
    if (text && read_file(path, text, STATUS_FILE_SIZE) > 0)
        return text;
    free(text);
    return nullptr;
}

// Posts a status file's text to NM; the answer is not looked at. Negative on failure.
static int status_post(const char *uri_tail, const char *body)
{
    char *answer = (char *)calloc(1, STATUS_FILE_SIZE);
    if (!answer)
        return -1;
    char path[NM_URI_SIZE];
    nm_uri_build(path, uri_tail);
    int result = nm_http_post(path, body, answer, STATUS_FILE_SIZE);
    free(answer);
    return result;
}

static int status_file_post(const StatusFile *file)
{
    log_info("Querying %s status...", file->name);
    PluginInfo info;
    plugin_info_get(&info);
    char *text = status_file_read(info.*file->path);
    if (!text) {
        log_warn("Querying %s status failed!", file->name);
        return -1;
    }
    log_info("Querying %s status successfully.", file->name);
    if (file->is_logged)
        log_info("Dev status query response: %s", text);
    int result = status_post(file->uri_tail, text);
    free(text);
    if (result < 0 && wait_is_cut())
        return 0; // asked to stop: NM refused nothing
    if (result < 0)
        log_warn("Posting %s status failed!, ret = %d", file->name, result);
    log_info("Posting %s status successfully", file->name); // after a failed post too: log readers expect the pair
    return 0;
}

int nm_dev_query_handle(uintptr_t, const char *, const char *, uint32_t)
{
    static const StatusFile k_file = {"dev", &PluginInfo::device_path, nullptr, true};
    return status_file_post(&k_file);
}

int nm_port_query_handle(uintptr_t, const char *, const char *, uint32_t)
{
    static const StatusFile k_file = {"port", &PluginInfo::port_path, "port", false};
    return status_file_post(&k_file);
}
