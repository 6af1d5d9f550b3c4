#include "transport/nm_sign.h"

#include <gtest/gtest.h>

#include "log_capture.h"
#include "peer.h"

static void identity_set(const char *sn, const char *ver, const char *ptype, const char *port)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    plugin_info_edit_text(&edit, edit.next.dev_sn, sn);
    plugin_info_edit_text(&edit, edit.next.protocol_version, ver);
    plugin_info_edit_text(&edit, edit.next.ptype, ptype);
    plugin_info_edit_text(&edit, edit.next.nm_ip, "127.0.0.1");
    plugin_info_edit_text(&edit, edit.next.nm_port, port);
    plugin_info_edit_commit(&edit);
}

TEST(nm_sign, headers_in_order_with_the_signature)
{
    const std::string long_sn(511, 's');
    const struct {
        const char *sn;
        const char *secret; // computed with md5sum
    } rows[] = {
        {"A1", "b7c2bef02ff598441ae8d05209dca008"},
        {"", "156f91696968daef0855d57266dcf34e"},
        {long_sn.c_str(), "40bdf9725c32a5b06d548188a674c245"}, // slash and salt are cut away before hashing
    };
    for (const auto &row : rows) {
        identity_set(row.sn, "1.3", "42", "1");
        EXPECT_EQ(2, nm_sign_init());
        char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
        EXPECT_EQ(4, nm_fill_headers(headers));
        EXPECT_EQ(std::string("secretKey: ") + row.secret, headers[0]);
        EXPECT_STREQ("pver: 1.3", headers[1]);
        EXPECT_EQ((std::string("deviceSn: ") + row.sn).substr(0, 511), headers[2]);
        EXPECT_STREQ("ptype: 42", headers[3]);
    }
    identity_set("B2", "1.4", "43", "1"); // changes nothing before the next bring-up
    char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
    nm_fill_headers(headers);
    EXPECT_STREQ("pver: 1.3", headers[1]);
}

TEST(nm_sign, device_response_is_posted_and_logged)
{
    LogLines log;
    std::string request;
    char rsp[10240] = {};
    int len = -5;
    {
        Peer peer([&](int listener) {
            int fd = peer_accept(listener);
            request = peer_read_request(fd);
            peer_send(fd, "HTTP/1.1 200 OK\r\n\r\n{\"status\":200}");
            close(fd);
        });
        identity_set("A1", "1.3", "42", peer.port.c_str());
        nm_sign_init();
        EXPECT_EQ(1, nm_send_device_response("/dev-api/A1/x", "{\"m\":1}", rsp, sizeof(rsp), &len));
    }
    EXPECT_EQ(0U, request.find("POST /dev-api/A1/x HTTP/1.1\r\nHOST: 127.0.0.1:")) << request;
    EXPECT_EQ(14, len);
    expect_in_order(log.text(), {"[INF] Sending device response to NM, uri: /dev-api/A1/x, header: secretKey: "
                                 "b7c2bef02ff598441ae8d05209dca008,pver: 1.3, msg: {\"m\":1}",
                                 "[INF] Receive response from NM, len: 14, content: {\"status\":200}"});

    identity_set("A1", "1.3", "42", "1"); // nobody listens there
    memset(rsp, 0, sizeof(rsp));
    EXPECT_EQ(0, nm_send_device_response("/dev-api/A1/x", "{}", rsp, sizeof(rsp), &len));
    EXPECT_EQ(14, len);
    EXPECT_TRUE(log.has("[WRN] Sending device response to NM failed. response: "));
}
