// The parsers that read what peers and files say, one target each: fuzz_parsers --target=NAME. Built with libFuzzer by
// the fuzz preset, else run over the files of corpus/NAME as a test.
#include <algorithm>
#include <cjson/cJSON.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
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
#include "remote/web_response.h"
#include "runtime/log.h"
#include "runtime/log_mask.h"
#include "runtime/plugin_info.h"
#include "runtime/wait.h"
#include "sim_tls.h"
#include "status/service_status_internal.h"
#include "transport/connect.h"
#include "transport/field_extract.h"
#include "transport/http_client_internal.h"
#include "transport/tls.h"
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
    uint8_t at(size_t i) const
    {
        return i < size ? data[i] : 0;
    }
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
static void web_start()
{
    require(web_pool_open() == 0 && web_request_open() == 0);
    require(tunnel_command(remote_web_req_handle, "start"));
}

static void web_frames(const Input &)
{
    web_start();
    while (conn_is_connected(REMOTE_WEB_SERVER) && !wait_is_cut())
        remote_web_turn();
    (void)tunnel_command(remote_web_req_handle, "stop");
}

static std::string s_read[256]; // from the device and not yet framed, by descriptor, which is the id too
static std::string s_sent;      // to NM, the begin of a frame
static int s_open_slots;

// Every frame brings what was read next for its id, or the id's end; the last one ends the tunnel.
static void frames_sent(const void *bytes, size_t len)
{
    s_sent.append((const char *)bytes, len);
    while (s_sent.size() >= WEB_HEADER_SIZE) {
        WebHeader header = web_header_get((const uint8_t *)s_sent.data());
        std::string *read = &s_read[header.msg_id[0]];
        bool ends = header.type == MSG_TYPE_DEV_DESTROY && header.length == 0 && read->empty();
        require(ends || (header.type == MSG_TYPE_RESP && header.length > 0 && header.length <= read->size()));
        if (s_sent.size() < WEB_HEADER_SIZE + header.length)
            return;
        require(s_sent.compare(0, 4, "\0\0\xdd\xcc", 4) == 0 &&
                s_sent.compare(WEB_HEADER_SIZE, header.length, *read, 0, header.length) == 0);
        read->erase(0, header.length);
        s_sent.erase(0, WEB_HEADER_SIZE + header.length);
        s_open_slots -= ends;
    }
    if (s_open_slots == 0)
        web_pool_close();
}

// The first bytes also say how many slots there are, how much is read and framed at once, and how NM takes it.
static void web_response(const Input &in)
{
    g_http_rsp_len = 1 + 16 * in.at(1);
    g_http_forward_len = 16 * (int8_t)in.at(2);
    web_start();
    s_sent.clear();
    for (s_open_slots = 0; s_open_slots <= in.at(0) % WEB_SLOT_COUNT; s_open_slots++) {
        SocketConn device = tcp_connect("127.0.0.1", "2", nullptr, nullptr, 0, 0);
        uint8_t id[WEB_ID_SIZE] = {(uint8_t)device.socket_fd};
        require(device.socket_fd > 0 && device.socket_fd < 256 && web_slot_bind(id) == s_open_slots);
        SocketConn held;
        require(web_slot_connect(s_open_slots, device, &held) == 0);
        conn_drop(&held);
        s_read[id[0]].clear();
    }
    g_world_watch.received = [](int fd, const void *bytes, size_t len) { s_read[fd].append((const char *)bytes, len); };
    g_world_watch.sent = frames_sent;
    g_world_watch.send_max = in.at(3);
    g_world_watch.fail_each = in.at(4);
    require(web_response_start(g_web_pool_generation) == 0);
    (void)tunnel_command(remote_web_req_handle, "stop");
}

// After the handshake: records of many sizes and other bytes, cut or together, and the end. The first bytes say how
// much arrives and is read at once. What is read is what was written, as far as it goes.
static void tls_records(const Input &in)
{
    static SSL_CTX *context = sim_tls_server();
    static SSL *server;
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    server = SSL_new(context);
    SSL_set_fd(server, ends[1]);
    g_world_watch.peer = [] { (void)(SSL_is_init_finished(server) || SSL_accept(server)); };
    SocketConn conn = {};
    conn.socket_fd = ends[0];
    conn.ssl = tls_init(ends[0], nullptr);
    require(conn.ssl);

    BIO *wire = BIO_new(BIO_s_mem());
    SSL_set0_wbio(server, wire);
    std::string written, got;
    bool is_clean = true;
    for (size_t at = 2; at < in.size && written.size() < 1 << 17; at++) {
        int number = in.data[at] & 127, left = (int)(in.size - at) - 1;
        if (in.data[at] < 128) {
            std::string text((size_t)number * 128 + 1, (char)at);
            require(SSL_write(server, text.data(), (int)text.size()) > 0);
            written += text;
        } else if (left > 0) {
            at += (size_t)BIO_write(wire, in.data + at + 1, number < left ? number + 1 : left);
            is_clean = false;
        }
    }

    const int piece = 1 + 32 * in.at(0), room = 1 + 32 * in.at(1);
    for (int len = 1; len > 0 && !wait_is_cut();) {
        char bytes[8192];
        int arrived = BIO_read(wire, bytes, piece);
        require(arrived > 0 ? write(ends[1], bytes, (size_t)arrived) == arrived : shutdown(ends[1], SHUT_WR) == 0);
        require(arrived > 0 || !is_clean || got.size() == written.size()); // before the end, which wakes everybody
        while (len > 0 && conn_readable(&conn, 10)) {
            len = conn_recv(&conn, bytes, (size_t)room);
            require(len >= 0 || errno != EAGAIN);
            got.append(bytes, len > 0 ? (size_t)len : 0);
        }
    }
    require(written.compare(0, got.size(), got) == 0);
    SSL_free(server);
    close(ends[1]);
    socket_close_private(&conn);
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
    {"web_response", web_response, true, true},
    {"tls_records", tls_records},
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
