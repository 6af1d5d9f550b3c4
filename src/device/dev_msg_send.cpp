#include "device/dev_msg_send.h"

#include <stdlib.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "transport/conn_registry.h"
#include "transport/conn_send.h"

// Length and text go out of one buffer: one send, so an unhindered frame also travels as one segment.
static int frame_send(const SocketConn *conn, const void *text, uint32_t len)
{
    size_t frame_len = DEV_FRAME_HEADER_SIZE + (size_t)len;
    uint8_t *frame = (uint8_t *)malloc(frame_len);
    if (!frame) {
        log_error("malloc device frame failed!");
        return -1;
    }
    le32_put(frame, len);
    if (len > 0)
        memcpy(frame + DEV_FRAME_HEADER_SIZE, text, len);
    SendPart part = {frame, frame_len};
    int result = conn_send(conn, SEND_MESSAGE, &part, 1);
    free(frame);
    return result;
}

int dev_frame_send(const void *text, uint32_t len)
{
    SocketConn conn;
    int result = -1;
    if (conn_hold(DEV_TCP, &conn))
        result = frame_send(&conn, text, len);
    conn_drop(&conn);
    return result;
}

void dev_text_send(const char *type, const char *text)
{
    size_t len = strlen(text);
    (void)dev_frame_send(text, (uint32_t)len);
    log_info("Send '%s' to device, payload_len: %d, content: %s", type, (int)len, text);
}

void dev_object_send(const char *type, const char *key, const char *object_text)
{
    if (!conn_is_connected(DEV_TCP)) {
        log_warn("The device TCP connection is lost!");
        return;
    }
    PluginInfo info;
    plugin_info_get(&info);
    char text[DEV_TEXT_SIZE];
    (void)text_fmt(text, "{\t\"type\":\"%s\",\t\"ver\":\"%s\",\t\"%s\":%s}", type, info.protocol_version, key,
                   object_text);
    uint32_t len = (uint32_t)strlen(text);
    (void)dev_frame_send(text, len);
    log_info("Send %s to device, payload_len: %d, content: %s", type, (int)len, text);
}
