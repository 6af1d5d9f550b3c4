// plugin_info.h - the one settings record of the process.
// Written from config.ini (plugin_config), the init cfg (init_cfg), the activation answer (activation) and the
// signature (nm_sign); read everywhere. Readers take a copy in one step. Writers prepare a PluginInfoEdit without a
// lock and commit the fields they set in one step. So a reader never sees half an update, and two writers never undo
// each other. Any thread; the lock inside is a short one.
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>

#include "runtime/text.h"

// PLUGIN_VERSION, told to the device and to both tunnel ends, is the version of the project in CMakeLists.txt.
#define PLUGIN_PROTOCOL_VERSION "1.3" // the init cfg's "ver" that this agent speaks

constexpr size_t IP_TEXT_SIZE = 16;  // dotted IPv4
constexpr size_t PORT_TEXT_SIZE = 6; // decimal
constexpr size_t IFNAME_TEXT_SIZE = 64;
constexpr size_t PATH_TEXT_SIZE = 256;
constexpr size_t ID_TEXT_SIZE = 512;
constexpr size_t HOST_TEXT_SIZE = 256; // longer names do not resolve

// Both ends of a link, as texts. Empty local texts bind nothing.
struct Endpoint {
    char remote_ip[IP_TEXT_SIZE];
    char remote_port[PORT_TEXT_SIZE];
    char local_ip[IP_TEXT_SIZE];
    char local_port[PORT_TEXT_SIZE];
};

struct PluginInfo {
    // config.ini; the init cfg replaces some of the remote sides. The local sides are read, logged and stored, but no
    // link binds them: NM-side links bind local_ip, the device link "127.0.0.1", tunnels to the
    // device nothing.
    Endpoint dev;           // the device's local agent
    Endpoint dev_web;       // the device's web server
    Endpoint dev_telnet;    // the device's telnet server
    Endpoint nm_web;        // local side of the remote-web link to NM
    Endpoint nm_telnet;     // local side of the remote-telnet link to NM
    Endpoint udp_detection; // NM's detection server (activation answer) and our side of it
    char init_cfg_path[PATH_TEXT_SIZE];
    char plugin_eth[IFNAME_TEXT_SIZE]; // until the init cfg names the interface
    char plugin_version[ID_TEXT_SIZE]; // PLUGIN_VERSION, set at start-up

    // Init cfg: where NM is. The four go together; nm_redirected says that a redirection chose them and that the
    // file's are ignored.
    char nm_method[ID_TEXT_SIZE]; // "http" or "https", any case
    char nm_host[HOST_TEXT_SIZE]; // as it was named, which is what its certificate says
    char nm_ip[IP_TEXT_SIZE];     // what that resolved to
    char nm_port[PORT_TEXT_SIZE];
    int32_t nm_redirected;

    // Init cfg: who the device is.
    char dev_sn[ID_TEXT_SIZE];
    char ptype[ID_TEXT_SIZE];    // decimal text
    char category[ID_TEXT_SIZE]; // decimal text
    char pversion[ID_TEXT_SIZE];
    char pname[ID_TEXT_SIZE];
    char mac[ID_TEXT_SIZE];
    char platform_name[PATH_TEXT_SIZE];
    char factory_name[PATH_TEXT_SIZE];
    char protocol_version[ID_TEXT_SIZE]; // "ver"
    char interface[IFNAME_TEXT_SIZE];
    char local_ip[IP_TEXT_SIZE]; // what NM-side links bind; "0.0.0.0" until an init cfg settles it

    // Init cfg: files and limits.
    char device_path[PATH_TEXT_SIZE];
    char port_path[PATH_TEXT_SIZE];
    char service_path[PATH_TEXT_SIZE];
    char interface_blacklist[PATH_TEXT_SIZE]; // names separated by ":"
    char disk_whitelist[PATH_TEXT_SIZE];      // mount points separated by ":"
    int32_t max_dev_msg_size;                 // bytes
    int32_t dev_msg_buffer_size;              // bytes
    char plugin_log_path[PATH_TEXT_SIZE];     // ends in "/", empty: no log files
    int32_t max_log_file_number;
    int32_t max_log_file_size; // bytes

    // The four header values of every request to NM, made from the above at bring-up (nm_sign_init).
    char header_secret_key[ID_TEXT_SIZE];
    char header_pver[ID_TEXT_SIZE];
    char header_device_sn[ID_TEXT_SIZE];
    char header_ptype[ID_TEXT_SIZE];
};

// Copies the whole record, some 9 KB.
void plugin_info_get(PluginInfo *copy);

// NM is reached over TLS: the method is "https" in any case.
bool nm_method_is_https(const char *method);
bool plugin_info_nm_is_https(void);

// What NM's certificate is expected to name: nm_host, or the address as long as there is none.
const char *nm_host_of(const PluginInfo *info);

// The field of that name, without a copy of the record: asked for in every turn of the main loop.
int32_t plugin_info_max_log_file_size(void);

// A prepared change: start from a copy, set fields of next, commit what was set. At most 64 fields.
struct PluginInfoEdit {
    PluginInfo next;
    int count;
    struct {
        uint32_t offset;
        uint32_t size;
    } fields[64];
};
void plugin_info_edit_begin(PluginInfoEdit *edit);
void plugin_info_edit_commit(PluginInfoEdit *edit);

// Notes that a field of edit->next was set by hand and is to be committed.
void plugin_info_edit_mark(PluginInfoEdit *edit, const void *field, size_t size);

// Sets a text field of edit->next, truncated to the field, and notes it. Returns as text_set.
template <size_t N> int plugin_info_edit_text(PluginInfoEdit *edit, char (&field)[N], const char *value)
{
    int result = text_set(field, value);
    plugin_info_edit_mark(edit, field, N);
    return result;
}

// Settings that are single words: atomics, stored as soon as they are read.
extern std::atomic<int32_t> g_http_rsp_len;              // bytes, read size on a device web connection
extern std::atomic<int32_t> g_http_forward_len;          // bytes, largest payload of a response frame
extern std::atomic<int32_t> g_sleep_between_http_rsp_ms; // read and logged only
