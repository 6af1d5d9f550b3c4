#include <sys/socket.h>

#include "peers.h"
#include "remote/web_pool.h"
#include "remote/web_upload.h"

static void forward(const uint8_t *msg_id, const char *text)
{
    web_upload_forward(msg_id, (const uint8_t *)text, (uint32_t)strlen(text));
}

// A browser closes its connection and opens one under the same msg_id while the first request still waits for a slot:
// the first one ends behind its bytes, the second one keeps a connection of its own.
static void reuse_check(bool is_slot_free_in_between)
{
    start_process_once();
    std::string port;
    int listener = listen_socket(&port);
    info_edit([&](PluginInfo *next) {
        (void)text_set(next->dev_web.remote_ip, "127.0.0.1");
        (void)text_set(next->dev_web.remote_port, port.c_str());
    });
    ASSERT_EQ(0, web_pool_open());
    uint8_t ids[WEB_SLOT_COUNT + 1][WEB_ID_SIZE] = {};
    for (int i = 0; i <= WEB_SLOT_COUNT; i++)
        ids[i][0] = (uint8_t)i;
    int devices[WEB_SLOT_COUNT + 2];
    for (int i = 0; i < WEB_SLOT_COUNT; i++) {
        forward(ids[i], "x");
        devices[i] = accept(listener, nullptr, nullptr);
    }
    const uint8_t *reused = ids[WEB_SLOT_COUNT];
    forward(reused, "first");
    web_upload_destroy(reused);
    if (is_slot_free_in_between)
        web_upload_destroy(ids[0]);
    forward(reused, "second");
    if (!is_slot_free_in_between)
        web_upload_destroy(ids[0]);
    web_upload_turn();

    for (int i = WEB_SLOT_COUNT; i < WEB_SLOT_COUNT + 2; i++)
        devices[i] = readable_within(listener, 5000) ? accept(listener, nullptr, nullptr) : -1;
    char rest;
    EXPECT_EQ("first", read_upto(devices[WEB_SLOT_COUNT], 5));
    EXPECT_EQ(0, recv(devices[WEB_SLOT_COUNT], &rest, 1, 0));
    EXPECT_EQ("second", read_upto(devices[WEB_SLOT_COUNT + 1], 6));
    WebSlot slot = {};
    EXPECT_LE(0, web_slot_hold_id(reused, &slot));
    conn_drop(&slot.conn);

    web_pool_close();
    web_upload_close();
    for (int device : devices)
        close(device);
    close(listener);
}

TEST(WebUpload, AMsgIdIsUsedAgainWhileItsFirstRequestWaits)
{
    reuse_check(false);
    reuse_check(true);
}
