#include "peers.h"
#include "remote/web_pool.h"
#include "remote/web_upload.h"

static void forward(const uint8_t *msg_id, const char *text)
{
    web_upload_forward(msg_id, (const uint8_t *)text, (uint32_t)strlen(text));
}

// The pool and the device that it connects to.
struct Pool {
    std::string port;
    const int listener = listen_socket(&port);

    Pool()
    {
        start_process_once();
        info_edit([&](PluginInfo *next) { endpoint_set(&next->dev_web, port); });
        EXPECT_EQ(0, web_pool_open());
    }
    ~Pool()
    {
        web_pool_close();
        web_upload_close();
        close(listener);
    }
    int accept_next() const
    {
        return readable_within(listener, 5000) ? accept(listener, nullptr, nullptr) : -1;
    }
};

// A browser closes its connection and opens one under the same msg_id while the first request still waits for a slot:
// the first one ends behind its bytes, the second one keeps a connection of its own.
static void reuse_check(bool is_slot_free_in_between)
{
    const Pool pool;
    uint8_t ids[WEB_SLOT_COUNT + 1][WEB_ID_SIZE] = {};
    for (int i = 0; i <= WEB_SLOT_COUNT; i++)
        ids[i][0] = (uint8_t)i;
    int devices[WEB_SLOT_COUNT + 2];
    for (int i = 0; i < WEB_SLOT_COUNT; i++) {
        forward(ids[i], "x");
        devices[i] = pool.accept_next();
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
        devices[i] = pool.accept_next();
    char rest;
    EXPECT_EQ("first", fd_read(devices[WEB_SLOT_COUNT], 5));
    EXPECT_EQ(0, recv(devices[WEB_SLOT_COUNT], &rest, 1, 0));
    EXPECT_EQ("second", fd_read(devices[WEB_SLOT_COUNT + 1], 6));
    WebSlot slot = {};
    EXPECT_LE(0, web_slot_hold_id(reused, &slot));
    conn_drop(&slot.conn);

    for (int device : devices)
        close(device);
}

TEST(WebUpload, AMsgIdIsUsedAgainWhileItsFirstRequestWaits)
{
    reuse_check(false);
    reuse_check(true);
}

// Forwards to a device that takes nothing until its kernel does not either.
static void stall(const uint8_t *msg_id)
{
    const std::string block(16384, 'x');
    do {
        while (!web_upload_is_full())
            forward(msg_id, block.c_str());
        for (int i = 0; i < 50; i++) {
            web_upload_turn();
            usleep(2000);
        }
    } while (!web_upload_is_full());
}

// The slot ends in the middle of a request: the rest of it reaches nobody. What comes after a pause is a new request.
TEST(WebUpload, TheRestOfALostRequestIsDropped)
{
    const Pool pool;
    const uint8_t id[WEB_ID_SIZE] = {1};
    stall(id);
    WebSlot slot;
    const int index = web_slot_hold_id(id, &slot);
    ASSERT_LE(0, index);
    EXPECT_TRUE(web_slot_end(index, slot.conn.ref));
    conn_drop(&slot.conn);
    for (int i = 0; i < 3; i++) {
        forward(id, "rest");
        EXPECT_EQ(-1, web_slot_hold_id(id, &slot));
        usleep(200 * 1000);
    }
    usleep(400 * 1000);
    forward(id, "new");
    close(pool.accept_next());
    const int device = pool.accept_next();
    EXPECT_EQ("new", fd_read(device, 3));
    close(device);
}

// NM has closed the msg_id, and the device takes no byte of what is left: it is given up after 7 s.
TEST(WebUpload, ADeviceThatTakesNothingIsGivenUp)
{
    const Pool pool;
    const uint8_t id[WEB_ID_SIZE] = {2};
    stall(id);
    web_upload_destroy(id);
    const int64_t begin_ms = wait_now_ms();
    WebSlot slot;
    while (web_slot_hold_id(id, &slot) >= 0 && wait_now_ms() - begin_ms < 20000) {
        conn_drop(&slot.conn);
        web_upload_turn();
        usleep(50 * 1000);
    }
    EXPECT_GE(wait_now_ms() - begin_ms, 6500);
    EXPECT_LE(wait_now_ms() - begin_ms, 9000);
}
