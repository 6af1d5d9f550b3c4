// The parsers that read what peers and files say, one target each: fuzz_parsers --target=NAME. Built with libFuzzer by
// the fuzz preset, else run over the files of corpus/NAME as a test.
#include <algorithm>
#include <cjson/cJSON.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "device/dev_msg_handle.h"
#include "device/dev_msg_handle_internal.h"
#include "device/dev_msg_recv.h"
#include "device/dev_msg_recv_internal.h"
#include "json_text.h"
#include "nm/activation.h"
#include "nm/device_init.h"
#include "nm/init_cfg_internal.h"
#include "nm/nm_msg.h"
#include "nm/nm_msg_table.h"
#include "remote/remote_telnet.h"
#include "remote/remote_telnet_internal.h"
#include "remote/remote_web.h"
#include "remote/web_pool.h"
#include "remote/web_request.h"
#include "runtime/log.h"
#include "runtime/log_mask.h"
#include "runtime/plugin_info.h"
#include "runtime/wait.h"
#include "status/service_status_internal.h"
#include "transport/field_extract.h"
#include "transport/http_client_internal.h"
#include "world.h"

static void require(bool holds)
{
    if (!holds)
        abort();
}

// A command of NM for a tunnel; whether it was carried out.
static bool tunnel_command(int (*handle)(uintptr_t, const char *, const char *, uint32_t), const char *action)
{
    const std::string text = std::string("{\"param\":{\"action\":\"") + action +
                             "\",\"host\":\"127.0.0.1\",\"port\":4,\"token\":\"t\",\"key\":1,\"sessionid\":\"s\"}}";
    return handle(0, text.c_str(), text.c_str(), (uint32_t)text.size()) == 0;
}

// What a target gets, after world_begin.
struct Input {
    const uint8_t *data;
    size_t size;
    const char *text; // the same with a NUL behind it, in memory of just that size
};

// The answer to a device's result, and that to the activation.
static void http_response(const Input &in)
{
    char *json;
    int len = http_parse_response(in.text, &json);
    require(json ? len >= 2 && strlen(json) == (size_t)len && json[0] == '{' && json[len - 1] == '}' : len <= 0);
    if (json)
        (void)dev_msg_ack("1", 1, "cfg-result", json, len);
    free(json);
    (void)device_activate();
}

static void nm_command(const Input &in)
{
    (void)nm_msg_process(0, in.text); // without threads no web tunnel comes of it
}

static void device_frames(const Input &in)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    edit.next.max_dev_msg_size = 128;
    edit.next.dev_msg_buffer_size = 160;
    plugin_info_edit_mark(&edit, &edit.next, sizeof(edit.next));
    plugin_info_edit_commit(&edit);
    (void)dev_msg_buffer_init();
    for (size_t turns = 0; world_bytes_left() > 0; turns++) {
        dev_msg_recv();
        dev_msg_get();
        require(turns <= in.size); // each reads a byte or cuts a frame
    }
    for (int i = 0; i < 40; i++) // frames of five bytes in a full buffer
        dev_msg_get();
    free_device_buffers();
}

// Without the thread of the device side.
static void web_frames(const Input &)
{
    require(web_pool_open() == 0 && web_request_open() == 0);
    require(tunnel_command(remote_web_req_handle, "start"));
    while (conn_is_connected(REMOTE_WEB_SERVER) && !wait_is_cut())
        remote_web_turn();
    (void)tunnel_command(remote_web_req_handle, "stop");
}

static void telnet_setup(const Input &in)
{
    (void)remote_telnet_is_init(in.text);
    char token[64];
    json_key_extract(in.text, "token", token, sizeof(token));
    require(memchr(token, '\0', sizeof(token)));
    (void)tunnel_command(remote_telnet_req_handle, "start");
    while (conn_is_connected(REMOTE_TELNET_SERVER) && !wait_is_cut())
        (void)remote_telnet_data_handle();
}

static void init_cfg(const Input &in)
{
    (void)init_cfg_parse_text(in.text);
    PluginInfo info;
    plugin_info_get(&info);
    size_t len = strlen(info.plugin_log_path);
    require(info.max_dev_msg_size >= 4096 && info.dev_msg_buffer_size >= info.max_dev_msg_size);
    require(len == 0 || info.plugin_log_path[len - 1] == '/');
}

static void service_file(const Input &in)
{
    int fd = memfd_create("service", MFD_CLOEXEC);
    require(write(fd, in.data, in.size) == (ssize_t)in.size && lseek(fd, 0, SEEK_SET) == 0);
    const auto check = [](const char *record, void *) {
        require(record[0] != '\0' && strlen(record) < SERVICE_RECORD_SIZE);
    };
    service_records_read(fd, check, nullptr);
    close(fd);
}

static void require_masked(const std::string &text, const char *expected = nullptr)
{
    char *masked = log_mask(text.c_str());
    require(masked && (!expected || strcmp(masked, expected) == 0));
    free(masked);
}

// As a line of the log, and as a value, which is hidden to its last byte whatever it is.
static void masked_line(const Input &in)
{
    require_masked(in.text);
    if (in.text[0] == '\0')
        return;
    const auto escaped = [](const std::string &text) {
        return json_print_and_delete(cJSON_CreateString(text.c_str()));
    };
    const std::string json = "{\"token\":" + escaped(in.text) + ",\"key\":5}";
    require_masked(json, R"({"token":"***","key":***})");
    require_masked("{\"payload\":" + escaped(json) + "}", R"({"payload":"{\"token\":\"***\",\"key\":***}"})");
}

static const struct Target {
    const char *name;
    void (*run)(const Input &in);
    bool in_pieces = false; // as long as the first byte of the input says
    bool accepts = false;   // NM and the device's services
} k_targets[] = {
    {"http_response", http_response, false, true},
    {"nm_command", nm_command},
    {"device_frames", device_frames, true},
    {"web_frames", web_frames, true, true},
    {"telnet_setup", telnet_setup, true, true},
    {"init_cfg", init_cfg},
    {"service_file", service_file},
    {"masked_line", masked_line},
};
static const Target *s_target;

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    for (const Target &target : k_targets) {
        if (*argc > 1 && (*argv)[1] == std::string("--target=") + target.name)
            s_target = &target;
    }
    if (!s_target) {
        fprintf(stderr, "usage: %s --target=NAME ..., NAME as in corpus/\n", (*argv)[0]);
        exit(2);
    }
    require(freopen("/dev/null", "w", stdout));
    log_mute();
    nm_msg_table_init();
    static const DevMsgCalls k_calls = {reload_init_cfg, service_status_device_request};
    dev_msg_calls_set(&k_calls);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    bool cut = s_target->in_pieces && size > 0;
    std::vector<char> text(size - cut + 1);
    std::copy(data + cut, data + size, text.begin());
    world_begin(data + cut, size - cut, cut ? data[0] : 0, s_target->accepts);
    s_target->run({data + cut, size - cut, text.data()});
    world_end();
    return 0;
}
