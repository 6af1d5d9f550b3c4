#include "transport/nm_sign.h"

#include <gtest/gtest.h>

#include "log_capture.h"
#include "peer.h"

static void serial_set(const std::string &serial)
{
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    plugin_info_edit_text(&edit, edit.next.dev_sn, serial.c_str());
    plugin_info_edit_commit(&edit);
}

TEST(nm_sign, headers_in_order_with_the_signature)
{
    const struct {
        std::string serial;
        const char *secret; // computed with md5sum
    } rows[] = {
        {"A1", "b7c2bef02ff598441ae8d05209dca008"},
        {"", "156f91696968daef0855d57266dcf34e"},
        {std::string(511, 's'), "40bdf9725c32a5b06d548188a674c245"}, // slash and salt are cut away before hashing
    };
    nm_set("1");
    char headers[NM_HEADER_COUNT][HTTP_HEADER_SLOT_SIZE];
    for (const auto &row : rows) {
        serial_set(row.serial);
        EXPECT_EQ(1, nm_sign_init());
        serial_set("not before the next bring-up");
        EXPECT_EQ(4, nm_fill_headers(headers));
        EXPECT_EQ(std::string("secretKey: ") + row.secret, headers[0]);
        EXPECT_STREQ("pver: 1.3", headers[1]);
        EXPECT_EQ(("deviceSn: " + row.serial).substr(0, 511), headers[2]);
        EXPECT_STREQ("ptype: 7", headers[3]);
    }
}

TEST(nm_sign, device_response_is_posted_and_logged)
{
    LogLines log;
    std::string request, port;
    char rsp[10240] = {};
    int len = -5;
    {
        Peer nm(answering({"HTTP/1.1 200 OK\r\n\r\n{\"status\":200}"}, &request));
        nm_set(port = nm.port);
        EXPECT_EQ(1, nm_send_device_response("/dev-api/A1/x", "{\"m\":1}", rsp, sizeof(rsp), &len));
    }
    EXPECT_EQ(14, len);
    EXPECT_EQ(nm_request_text("/dev-api/A1/x", port, "{\"m\":1}"), request);
    EXPECT_EQ(0, nm_send_device_response("/dev-api/A1/x", "{}", rsp, sizeof(rsp), &len)); // NM is gone
    EXPECT_EQ(14, len);
    expect_in_order(log.text(), {"[INF] Sending device response to NM, uri: /dev-api/A1/x, header: secretKey: "
                                 "b7c2bef02ff598441ae8d05209dca008,pver: 1.3, msg: {\"m\":1}",
                                 "[INF] Receive response from NM, len: 14, content: {\"status\":200}",
                                 "[WRN] Sending device response to NM failed. response: "});
}
