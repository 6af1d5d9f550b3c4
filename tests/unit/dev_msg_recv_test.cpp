#include "device/dev_msg_recv.h"
#include "device/dev_msg_recv_internal.h"

#include "peers.h"

// Areas of the given sizes and a device link.
struct Receiver {
    int device; // its end of the link

    Receiver(int32_t msg_size, int32_t buffer_size)
    {
        info_edit([=](PluginInfo *next) {
            next->max_dev_msg_size = msg_size;
            next->dev_msg_buffer_size = buffer_size;
        });
        dev_msg_recv_init();
        EXPECT_EQ(dev_msg_buffer_init(), 1);
        device = device_link();
    }
    ~Receiver()
    {
        conn_remove_all();
        free_device_buffers();
        close(device);
    }
};

static std::string s_logged; // by the last pass

// Sends the bytes and takes them in; get calls to the consumer follow. Returns the contents that were handed over.
static Texts pass(int device, const std::string &bytes, int get_calls)
{
    LogLines log;
    if (!bytes.empty()) {
        EXPECT_EQ(send(device, bytes.data(), bytes.size(), 0), (ssize_t)bytes.size());
        dev_msg_recv();
    }
    for (int i = 0; i < get_calls; i++)
        dev_msg_get();
    s_logged = log.text();
    const std::string before = ", content: ";
    Texts contents;
    for (size_t at = 0; (at = s_logged.find(before, at)) != std::string::npos;) {
        at += before.size();
        contents.push_back(s_logged.substr(at, s_logged.find('\n', at) - at));
    }
    return contents;
}

TEST(DevMsgRecv, LengthsAtTheEdge)
{
    const std::string fits(60, 'f'), over(61, 'o'),
        huge = "\xff\xff\xff\xff"
               "junk";
    const struct {
        const char *name;
        std::string bytes;
        Texts handed; // by three turns
        int incomplete;
        std::string then; // what follows
        Texts after;
    } cases[] = {
        {"largest", frame(fits), {fits}, 0, frame("x"), {"x"}},
        {"one more drops what is buffered", frame("a") + frame(over).substr(0, 20), {"a"}, 0, frame("b"), {"b"}},
        {"huge", huge, {}, 0, frame("b"), {"b"}},
        {"length alone stays", std::string("\1\0\0\0", 4), {}, 0, "x", {"x"}},
        {"incomplete in every turn", frame("abc").substr(0, 5), {}, 3, "bc", {"abc"}},
        {"two empty ones", frame("") + frame(""), {}, 0, frame("y"), {"y"}},
        {"short after long", frame("long text"), {"long text"}, 0, frame("s"), {"s"}},
    };
    const Receiver to(64, 256);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pass(to.device, c.bytes, 3), c.handed);
        EXPECT_EQ(count_of(s_logged, "The device message get is not complete!\n"), c.incomplete);
        EXPECT_EQ(pass(to.device, c.then, 3), c.after);
    }
}

// Both areas of one size, the smallest legal pair: a frame behind another one must still come in whole.
TEST(DevMsgRecv, EqualSizesFrameInPieces)
{
    const std::string small(20, 's'), whole(60, 'w');
    for (size_t cut = 1; cut < 36; cut++) {
        SCOPED_TRACE(cut);
        const Receiver to(64, 64);
        EXPECT_EQ(pass(to.device, frame(small) + frame(whole).substr(0, cut), 1), Texts{small});
        EXPECT_EQ(pass(to.device, frame(whole).substr(cut), 1), Texts{whole});
    }
}

TEST(DevMsgRecv, FullBufferWaitsForTheConsumer)
{
    const Receiver to(64, 100);
    const std::string small(14, 's'); // two that are pending leave just the room for a message
    EXPECT_EQ(pass(to.device, frame(small) + frame(small) + frame(small), 1), Texts{small});
    EXPECT_EQ(pass(to.device, frame(small), 3), Texts(3, small));
    const std::string one(40, '1'), two(30, '2'), three(10, '3');
    EXPECT_EQ(pass(to.device, frame(one).substr(0, 10), 0), Texts{});
    EXPECT_EQ(pass(to.device, frame(one).substr(10) + frame(two).substr(0, 20), 0), Texts{});
    EXPECT_EQ(pass(to.device, frame(two).substr(20) + frame(three), 1), Texts{one});
    EXPECT_EQ(count_of(s_logged, " is full! Wait a moment ...\n"), 1);
    dev_msg_recv(); // the bytes were left in the socket
    EXPECT_EQ(pass(to.device, "", 2), (Texts{two, three}));
}
