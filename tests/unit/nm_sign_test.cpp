#include "transport/nm_sign.h"

#include "peers.h"

static void serial_set(const std::string &serial)
{
    info_edit([&](PluginInfo *next) { (void)text_set(next->dev_sn, serial.c_str()); });
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
