#include "nm/activation.h"

#include <atomic>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "device/dev_msg_send.h"
#include "device/dma_status.h"
#include "nm/nm_msg.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/stop.h"
#include "runtime/text.h"
#include "runtime/wait.h"
#include "transport/field_extract.h"
#include "transport/nm_post.h"
#include "transport/nm_wait.h"
#include "transport/resolve.h"

constexpr size_t ANSWER_SIZE = 10240;
constexpr size_t BODY_SIZE = 10240;                // all identity fields fit several times
constexpr size_t NM_PATH_SIZE = ID_TEXT_SIZE + 32; // a serial number and what stands around it

enum ActivationStatus { ACTIVATION_OK = 200, ACTIVATION_OK_FORWARD = 201, ACTIVATION_REDIRECT = 304 };

// Tells the device about a redirection; result_text is printed JSON, null when there was nothing to print.
static void redirection_to_device(const char *result_text)
{
    if (!result_text) {
        log_error("msg is NULL!");
        return;
    }
    dev_object_send("redirection", "result", result_text);
}

static void result_forward(const cJSON *result)
{
    char *text = cJSON_Print(result);
    redirection_to_device(text);
    cJSON_free(text);
}

// The first element of the redirection whose "type" is "NMS" in any case, or null.
static const cJSON *redirection_find(const cJSON *redirection)
{
    if (!cJSON_IsArray(redirection))
        return nullptr;
    const cJSON *element;
    cJSON_ArrayForEach(element, redirection)
    {
        const char *type = cJSON_GetStringValue(cJSON_GetObjectItem(element, "type"));
        if (type && strcasecmp(type, "NMS") == 0)
            return element;
    }
    return nullptr;
}

// The new address holds even if its port proves wrong; a redirected NM is always reached over TLS, on the next port.
static void redirection_take(const cJSON *target)
{
    char ip[128];
    char name[sizeof(ip)];
    int result = json_get_string(target, "ip", ip, sizeof(ip));
    (void)text_set(name, ip);
    if (result != 0 || resolve_host(ip, sizeof(ip)) != 0)
        return;
    int32_t port = -1;
    (void)json_get_int(target, "port", &port);

    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    PluginInfo *next = &edit.next;
    (void)plugin_info_edit_text(&edit, next->nm_host, name);
    (void)plugin_info_edit_text(&edit, next->nm_ip, ip);
    bool is_complete = (uint32_t)port < 65536;
    if (is_complete) {
        (void)text_fmt(next->nm_port, "%d", port + 1);
        plugin_info_edit_mark(&edit, next->nm_port, sizeof(next->nm_port));
        (void)plugin_info_edit_text(&edit, next->nm_method, "https");
        next->nm_redirected = 1;
        plugin_info_edit_mark(&edit, &next->nm_redirected, sizeof(next->nm_redirected));
    }
    plugin_info_edit_commit(&edit);
    nm_waits_call_off();
    if (is_complete)
        log_info("Will redirect to the new NMS: %s", next->nm_ip);
}

// Takes the first "NMS" entry of the answer's redirection as the new NM, and forwards "result" to the device in any
// case.
static void redirection_handle(const cJSON *root)
{
    const cJSON *result = cJSON_GetObjectItem(root, "result");
    const cJSON *target = redirection_find(cJSON_GetObjectItem(result, "redirection"));
    if (target)
        redirection_take(target);
    result_forward(result);
}

// The detection server out of "result": stored whatever it is worth. 0, else non-zero (logged).
static int detection_take(const cJSON *result, const char *dev_sn)
{
    char host[ID_TEXT_SIZE] = {};
    int failed = json_get_string(result, "host", host, sizeof(host));
    failed |= resolve_host(host, sizeof(host));
    int32_t port = -1;
    failed |= json_get_int(result, "port", &port);
    if ((uint32_t)port >= 65536) {
        log_error("Invalid port: %d!", port);
        failed = -1;
    }
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    Endpoint *server = &edit.next.udp_detection;
    (void)plugin_info_edit_text(&edit, server->remote_ip, host);
    (void)text_fmt(server->remote_port, "%d", port);
    plugin_info_edit_mark(&edit, server->remote_port, sizeof(server->remote_port));
    plugin_info_edit_commit(&edit);
    if (failed != 0) {
        log_info("Activate device: %s failed! Response is invalid!", dev_sn);
        set_dma_cause("");
    }
    return failed;
}

static int answer_handle(const cJSON *root, const char *dev_sn)
{
    const cJSON *result = cJSON_GetObjectItem(root, "result");
    int32_t status = 0;
    (void)json_get_int(root, "status", &status);
    if (status == ACTIVATION_REDIRECT) {
        redirection_handle(root);
        set_dma_cause("REDIRECTION");
        return -1;
    }
    if (status == ACTIVATION_OK_FORWARD)
        result_forward(result);
    if (status != ACTIVATION_OK && status != ACTIVATION_OK_FORWARD) {
        log_info("Activate device: %s failed!", dev_sn);
        char cause[512] = {};
        (void)json_get_string(root, "error", cause, sizeof(cause));
        set_dma_cause(cause);
        return -1;
    }
    int failed = detection_take(result, dev_sn);
    if (failed == 0)
        log_info("Activate device: %s successfully!", dev_sn);
    return failed;
}

// Posts the identity; the answer's tree, or null (logged, cause cleared).
static cJSON *activation_post(const PluginInfo *info, char *body, char *rsp)
{
    char path[NM_PATH_SIZE];
    nm_uri_format(path, sizeof(path), info->dev_sn, "active");
    (void)text_format(body, BODY_SIZE,
                      "{\n\t\"deviceSn\":\"%s\",\n\t\"ptype\":\"%s\",\n\t\"category\":\"%s\",\n\t\"pname\":\"%s\",\n"
                      "\t\"pversion\":\"%s\",\n\t\"mac\":\"%s\",\n\t\"localIp\":\"%s\",\n\t\"platformName\":\"%s\",\n"
                      "\t\"factoryName\":\"%s\",\n\t\"ver\":\"%s\"\n}",
                      info->dev_sn, info->ptype, info->category, info->pname, info->pversion, info->mac, info->local_ip,
                      info->platform_name, info->factory_name, info->protocol_version);
    if (nm_http_post(path, body, rsp, ANSWER_SIZE) < 0) {
        if (stop_requested())
            return nullptr; // NM refused nothing
        log_warn("Acting device failed! Retry...");
        set_dma_cause("");
        return nullptr;
    }
    log_info("Device activate rsp: %s", rsp);
    cJSON *root = json_parse_logged(rsp);
    if (!root)
        set_dma_cause("");
    return root;
}

int device_activate(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    char *body = (char *)calloc(1, BODY_SIZE);
    char *rsp = (char *)calloc(1, ANSWER_SIZE);
    int result = -1;
    if (!body || !rsp) {
        log_error("malloc failed!");
    } else if (cJSON *root = activation_post(&info, body, rsp)) {
        result = answer_handle(root, info.dev_sn);
        cJSON_Delete(root);
    }
    free(body);
    free(rsp);
    return result;
}

// The handshakes under way. One that never gets its answer must not keep the others out: NM's commands all come this
// way.
constexpr int HANDSHAKES_MAX = 8; // each may wait for a slow NM or run a long command, such as a tunnel's set-up

enum HandshakePhase : uint8_t { HANDSHAKE_FREE = 0, HANDSHAKE_WAITING, HANDSHAKE_RUNNING };

struct HandshakeSlot {
    std::atomic<uint32_t> owner; // rises with each handshake that takes the slot: the call-off of the one before
    HandshakePhase phase;
    uint32_t number; // of the handshake, in the order of their begin; wraps
};

// Guards s_handshakes and s_handshake_number; short.
static pthread_mutex_t s_handshake_mutex = PTHREAD_MUTEX_INITIALIZER;
static HandshakeSlot s_handshakes[HANDSHAKES_MAX];
static uint32_t s_handshake_number;

// A free slot, else that of the oldest handshake without an answer, else null.
static HandshakeSlot *slot_choose_locked(void)
{
    HandshakeSlot *oldest = nullptr;
    for (HandshakeSlot &slot : s_handshakes) {
        if (slot.phase == HANDSHAKE_FREE)
            return &slot;
        if (slot.phase == HANDSHAKE_WAITING && (!oldest || (int32_t)(slot.number - oldest->number) < 0))
            oldest = &slot;
    }
    return oldest;
}

// Null when there is no room. *owner names the caller until another handshake takes the slot.
static HandshakeSlot *slot_take(uint32_t *owner)
{
    pthread_mutex_lock(&s_handshake_mutex);
    HandshakeSlot *slot = slot_choose_locked();
    if (slot) {
        *owner = ++slot->owner;
        slot->phase = HANDSHAKE_WAITING;
        slot->number = ++s_handshake_number;
    }
    pthread_mutex_unlock(&s_handshake_mutex);
    return slot;
}

// Nothing when the slot is another's by now.
static void slot_phase_set(HandshakeSlot *slot, uint32_t owner, HandshakePhase phase)
{
    pthread_mutex_lock(&s_handshake_mutex);
    if (slot->owner == owner)
        slot->phase = phase;
    pthread_mutex_unlock(&s_handshake_mutex);
}

// NM's answer, freed by the caller; null (logged) without one.
static char *handshake_post(void)
{
    char *rsp = (char *)calloc(1, ANSWER_SIZE);
    if (!rsp) {
        log_error("malloc failed!");
        return nullptr;
    }
    PluginInfo info;
    plugin_info_get(&info);
    char path[NM_PATH_SIZE];
    char body[ID_TEXT_SIZE + 32];
    nm_uri_format(path, sizeof(path), info.dev_sn, "handshake");
    (void)text_fmt(body, "{\n\"ver\":\"%s\"\n}", info.protocol_version);
    log_debug("Sending handshake req...");
    if (nm_http_post(path, body, rsp, ANSWER_SIZE) >= 0)
        return rsp;
    if (!stop_requested())
        log_warn("Handshaking failed!");
    free(rsp);
    return nullptr;
}

void handshake_send(void)
{
    uint32_t owner;
    HandshakeSlot *slot = slot_take(&owner);
    if (!slot)
        return;
    CallOff before;
    before = wait_call_off_set({&slot->owner, owner, &before});
    char *answer = handshake_post();
    wait_call_off_set(before); // an answer counts, even if the handshake was called off meanwhile: NM has given it away
    slot_phase_set(slot, owner, HANDSHAKE_RUNNING);
    if (answer && nm_msg_process(0, answer) != 0)
        log_warn("Process handshake response failed!");
    free(answer);
    slot_phase_set(slot, owner, HANDSHAKE_FREE);
}
