#include "transport/nm_sign.h"

#include <openssl/md5.h>
#include <string.h>

#include "runtime/log.h"
#include "runtime/text.h"

static const char k_salt[] = "Qol.Vetrix@2019";

int nm_sign_init(void)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    PluginInfo *info = &edit.next;

    char signed_text[ID_TEXT_SIZE];
    (void)text_fmt(signed_text, "%s/%s", info->dev_sn, k_salt);
    unsigned char digest[MD5_DIGEST_LENGTH] = {};
    if (!MD5((const unsigned char *)signed_text, strlen(signed_text), digest))
        log_error("MD5 failed!"); // a library without it; NM will refuse the signature of zeros
    char hex[2 * MD5_DIGEST_LENGTH + 1] = {};
    for (unsigned char byte : digest)
        (void)text_append(hex, sizeof(hex), "%02x", byte);

    (void)plugin_info_edit_text(&edit, info->header_secret_key, hex);
    (void)plugin_info_edit_text(&edit, info->header_pver, info->protocol_version);
    (void)plugin_info_edit_text(&edit, info->header_device_sn, info->dev_sn);
    (void)plugin_info_edit_text(&edit, info->header_ptype, info->ptype);
    plugin_info_edit_commit(&edit);
    return (int)strlen(info->header_ptype);
}

void nm_headers_fill(const PluginInfo *info, char (&headers)[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE])
{
    memset(headers, 0, sizeof(headers));
    (void)text_fmt(headers[0], "%s: %s", "secretKey", info->header_secret_key);
    (void)text_fmt(headers[1], "%s: %s", "pver", info->header_pver);
    (void)text_fmt(headers[2], "%s: %s", "deviceSn", info->header_device_sn);
    (void)text_fmt(headers[3], "%s: %s", "ptype", info->header_ptype);
}

int nm_fill_headers(char (&headers)[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE])
{
    PluginInfo info;
    plugin_info_get(&info);
    nm_headers_fill(&info, headers);
    return NM_HEADER_COUNT;
}
