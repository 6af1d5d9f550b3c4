#include "remote/web_frame.h"

#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"
#include "transport/conn_send.h"

static const uint8_t k_magic[4] = {0x00, 0x00, 0xDD, 0xCC};
constexpr size_t LENGTH_AT = 4;
constexpr size_t TYPE_AT = 8;
constexpr size_t ID_AT = 9;
static_assert(ID_AT + WEB_ID_SIZE == WEB_HEADER_SIZE, "the msg_id ends the header");

WebHeader web_header_get(const uint8_t *bytes)
{
    WebHeader header = {};
    header.length = be32_get(bytes + LENGTH_AT);
    header.type = bytes[TYPE_AT];
    memcpy(header.msg_id, bytes + ID_AT, WEB_ID_SIZE);
    return header;
}

static void header_put(const WebHeader *header, uint8_t *bytes)
{
    memcpy(bytes, k_magic, sizeof(k_magic));
    be32_put(bytes + LENGTH_AT, header->length);
    bytes[TYPE_AT] = header->type;
    memcpy(bytes + ID_AT, header->msg_id, WEB_ID_SIZE);
}

bool web_is_same_id(const uint8_t *a, const uint8_t *b)
{
    return memcmp(a, b, WEB_ID_SIZE) == 0;
}

static bool has_transmit_args(const SocketConn *nm, const uint8_t *http_rsp, uint32_t http_rsp_len,
                              const uint8_t *msg_id, uint8_t type)
{
    bool is_valid = true;
    if (!nm) {
        log_error("server_sock is NULL!");
        is_valid = false;
    }
    if (!msg_id) {
        log_error("msg_id is NULL!");
        is_valid = false;
    }
    if (type == MSG_TYPE_RESP && !http_rsp) {
        log_error("http_rsp is NULL!");
        is_valid = false;
    }
    if (type == MSG_TYPE_RESP && http_rsp_len == 0) {
        log_error("http_rsp_len is INVALID!");
        is_valid = false;
    }
    return is_valid;
}

int remote_web_rsp_transmit_privately(const SocketConn *nm, const uint8_t *http_rsp, uint32_t http_rsp_len,
                                      const uint8_t *msg_id, uint8_t type)
{
    if (!has_transmit_args(nm, http_rsp, http_rsp_len, msg_id, type))
        return -1;
    WebHeader header = {http_rsp ? http_rsp_len : 0, type, {}};
    memcpy(header.msg_id, msg_id, WEB_ID_SIZE);
    uint8_t bytes[WEB_HEADER_SIZE];
    header_put(&header, bytes);

    SendPart parts[2] = {{bytes, sizeof(bytes)}, {http_rsp, header.length}};
    int sent = conn_send(nm, SEND_STREAM, parts, header.length > 0 ? 2 : 1);
    log_debug("Send remote-web message(msg_id[0X%02X%02X%02X%02X%02X%02X%02X%02X]) to: %s:%s, len: %d, type: %d",
              msg_id[0], msg_id[1], msg_id[2], msg_id[3], msg_id[4], msg_id[5], msg_id[6], msg_id[7], nm->remote_ip,
              nm->remote_port, (int)header.length, type);
    return sent < 0 ? -1 : 0;
}
