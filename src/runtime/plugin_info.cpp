#include "runtime/plugin_info.h"
#include "runtime/plugin_info_internal.h"

#include <pthread.h>
#include <string.h>
#include <strings.h>

#include "runtime/log.h"

std::atomic<int32_t> g_http_rsp_len{32768};
std::atomic<int32_t> g_http_forward_len{10240};
std::atomic<int32_t> g_sleep_between_http_rsp_ms{100};

static PluginInfo make_initial_info(void)
{
    PluginInfo info = {};
    (void)text_set(info.local_ip, "0.0.0.0");
    info.max_dev_msg_size = 4096;
    info.dev_msg_buffer_size = 16384;
    info.max_log_file_number = 2;
    info.max_log_file_size = 64;
    return info;
}

// Guards g_plugin_info; a short lock, held for one copy.
static pthread_mutex_t s_info_mutex = PTHREAD_MUTEX_INITIALIZER;
static PluginInfo g_plugin_info = make_initial_info();

void plugin_info_get(PluginInfo *copy)
{
    pthread_mutex_lock(&s_info_mutex);
    *copy = g_plugin_info;
    pthread_mutex_unlock(&s_info_mutex);
}

bool nm_method_is_https(const char *method)
{
    return strcasecmp(method, "https") == 0;
}

const char *nm_host_of(const PluginInfo *info)
{
    return info->nm_host[0] ? info->nm_host : info->nm_ip;
}

bool plugin_info_nm_is_https(void)
{
    pthread_mutex_lock(&s_info_mutex);
    bool is_https = nm_method_is_https(g_plugin_info.nm_method);
    pthread_mutex_unlock(&s_info_mutex);
    return is_https;
}

int32_t plugin_info_max_log_file_size(void)
{
    pthread_mutex_lock(&s_info_mutex);
    int32_t size = g_plugin_info.max_log_file_size;
    pthread_mutex_unlock(&s_info_mutex);
    return size;
}

void plugin_info_edit_begin(PluginInfoEdit *edit)
{
    plugin_info_get(&edit->next);
    edit->count = 0;
}

void plugin_info_edit_mark(PluginInfoEdit *edit, const void *field, size_t size)
{
    constexpr int capacity = sizeof(edit->fields) / sizeof(edit->fields[0]);
    if (edit->count >= capacity) {
        log_error("too many settings in one change!");
        return;
    }
    edit->fields[edit->count].offset = (uint32_t)((const char *)field - (const char *)&edit->next);
    edit->fields[edit->count].size = (uint32_t)size;
    edit->count++;
}

void plugin_info_edit_commit(PluginInfoEdit *edit)
{
    pthread_mutex_lock(&s_info_mutex);
    for (int i = 0; i < edit->count; i++) {
        size_t offset = edit->fields[i].offset;
        memcpy((char *)&g_plugin_info + offset, (const char *)&edit->next + offset, edit->fields[i].size);
    }
    pthread_mutex_unlock(&s_info_mutex);
    edit->count = 0;
}

void plugin_info_reset_for_test(void)
{
    pthread_mutex_lock(&s_info_mutex);
    g_plugin_info = make_initial_info();
    pthread_mutex_unlock(&s_info_mutex);
    g_log_std = 0;
    g_log_level = 6;
    g_http_rsp_len = 32768;
    g_http_forward_len = 10240;
    g_sleep_between_http_rsp_ms = 100;
}
