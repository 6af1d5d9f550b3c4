#include "device/dma_status.h"

#include <pthread.h>
#include <string.h>

#include "device/dev_msg_send.h"
#include "device/dma_status_internal.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "transport/conn_registry.h"

// Short lock: guards s_dma.
static pthread_mutex_t s_dma_mutex = PTHREAD_MUTEX_INITIALIZER;
static struct {
    uint32_t status;
    char cause[DMA_CAUSE_SIZE];
    bool notify_pending; // status or cause changed since the device was told
} s_dma;

void dma_status_set(DmaStatus status, DmaCauseRule cause_rule)
{
    pthread_mutex_lock(&s_dma_mutex);
    if (s_dma.status != status) {
        s_dma.status = status;
        s_dma.notify_pending = true;
        if (cause_rule == DMA_CAUSE_CLEAR)
            s_dma.cause[0] = '\0';
    }
    pthread_mutex_unlock(&s_dma_mutex);
}

void set_dma_cause(const char *cause)
{
    if (!cause) {
        log_error("new_cause is NULL!");
        return;
    }
    pthread_mutex_lock(&s_dma_mutex);
    if (strcmp(s_dma.cause, cause) != 0) { // a cause that does not fit differs every time
        (void)text_set(s_dma.cause, cause);
        s_dma.notify_pending = true;
    }
    pthread_mutex_unlock(&s_dma_mutex);
}

uint32_t dma_status_get(char (&cause)[DMA_CAUSE_SIZE])
{
    pthread_mutex_lock(&s_dma_mutex);
    uint32_t status = s_dma.status;
    (void)text_set(cause, s_dma.cause);
    pthread_mutex_unlock(&s_dma_mutex);
    return status;
}

void dma_status_notify(void)
{
    pthread_mutex_lock(&s_dma_mutex);
    bool pending = s_dma.notify_pending;
    s_dma.notify_pending = false;
    pthread_mutex_unlock(&s_dma_mutex);
    if (pending)
        dma_status_send("online-status-notify");
}

static const char *dma_status_text(uint32_t status)
{
    static const char *const k_texts[] = {"offline", "plugin_initialization_failed", "device_center_request_failed",
                                          "device_activation_failed", "online"};
    static_assert(sizeof(k_texts) / sizeof(k_texts[0]) == DMA_ONLINE + 1, "one text per status");
    if (status <= DMA_ONLINE)
        return k_texts[status];
    log_warn("Undefined device DMA status: %d!", (int)status);
    return k_texts[DMA_OFFLINE];
}

const char *dma_status_describe(char (&cause)[DMA_CAUSE_SIZE])
{
    return dma_status_text(dma_status_get(cause));
}

void dma_status_send(const char *type)
{
    if (!type) {
        log_error("type is NULL!");
        return;
    }
    if (!conn_is_connected(DEV_TCP)) {
        log_warn("The device TCP connection is lost!");
        return;
    }
    char cause[DMA_CAUSE_SIZE];
    uint32_t status = dma_status_get(cause);
    PluginInfo info;
    plugin_info_get(&info);
    char text[DEV_TEXT_SIZE];
    (void)text_fmt(text, "{\t\"type\":\"%s\",\t\"result\":\"%s\",\t\"cause\":\"%s\",\t\"ver\":\"%s\"}", type,
                   dma_status_text(status), cause, info.plugin_version);
    dev_text_send(type, text);
}
