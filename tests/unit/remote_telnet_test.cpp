#include "remote/remote_telnet.h"

#include "transport/conn_registry.h"
#include "tunnel_peer.h"

static const char k_accept[] = "{\"result\":\"true\"}";
static const char k_init[] = "{\"type\":\"INIT\"}";

static int command(const char *action, const std::string &port)
{
    std::string text = tunnel_command(action, port);
    return remote_telnet_req_handle(0, nullptr, text.c_str(), (uint32_t)text.size());
}

static void device_set(const std::string &port)
{
    std::unique_ptr<PluginInfoEdit> edit(new PluginInfoEdit);
    plugin_info_edit_begin(edit.get());
    text_set(edit->next.dev_telnet.remote_ip, "127.0.0.1");
    text_set(edit->next.dev_telnet.remote_port, port.c_str());
    plugin_info_edit_mark(edit.get(), &edit->next.dev_telnet, sizeof(edit->next.dev_telnet));
    plugin_info_edit_commit(edit.get());
}

// NM's half of a set-up.
static bool welcome(NmEnd *nm)
{
    bool accepted = nm->accept_agent() && nm->recv(auth_bytes().size()) == auth_bytes() && nm->send(k_accept);
    usleep(5000); // mostly two reads; one serves too
    return accepted && nm->send(k_init);
}

// An agent whose tunnel stands until the end of the scope.
struct OpenTelnet {
    TunnelAgent agent;

    OpenTelnet(NmEnd *nm, const std::string &device_port) : agent(remote_telnet_init, remote_telnet_turn, nm->tls)
    {
        device_set(device_port);
        start(nm);
    }

    static void start(NmEnd *nm)
    {
        std::thread nm_thread([nm] { EXPECT_TRUE(welcome(nm)); });
        EXPECT_EQ(0, command("start", nm->port));
        nm_thread.join();
    }

    ~OpenTelnet()
    {
        EXPECT_EQ(0, command("stop", "1"));
    }
};

static void echo(int fd)
{
    char buf[4096];
    for (ssize_t len; (len = recv(fd, buf, sizeof(buf), 0)) > 0;)
        (void)!send(fd, buf, (size_t)len, MSG_NOSIGNAL);
}

TEST(RemoteTelnet, IsInit)
{
    EXPECT_EQ(1, remote_telnet_is_init("noise {\"type\": \"INIT\"}"));
    EXPECT_EQ(0, remote_telnet_is_init("{\"type\":\"INITIAL\"}"));
    EXPECT_EQ(0, remote_telnet_is_init("ls -l\r\n"));
}

TEST(RemoteTelnet, RelaysEveryByteBothWaysAtOnce)
{
    for (bool tls : {false, true}) {
        NmEnd nm(tls);
        DeviceEnd device(echo);
        OpenTelnet tunnel(&nm, device.port);
        std::string bytes = pattern(256 * 1024, 5);
        std::thread sender([&] { EXPECT_TRUE(nm.send(bytes)); });
        EXPECT_TRUE(nm.recv(bytes.size()) == bytes);
        sender.join();
        int64_t begin = wait_now_ms();
        for (int key = 0; key < 50; key++) {
            nm.send("x");
            EXPECT_EQ("x", nm.recv(1));
        }
        EXPECT_LT(wait_now_ms() - begin, 50 * 40); // some 6 ms each; 100 would be a wait for the other side
    }
}

TEST(RemoteTelnet, BothSetUpTextsInOneSegment)
{
    NmEnd nm;
    DeviceEnd device(echo);
    TunnelAgent agent(remote_telnet_init, remote_telnet_turn, false);
    device_set(device.port);
    for (const std::string &gap : {std::string(), std::string("\0", 1), std::string("\r\n")}) {
        std::thread nm_thread([&] {
            EXPECT_TRUE(nm.accept_agent());
            (void)nm.recv(auth_bytes().size());
            nm.send("{\"a\":{\"b\":\"}\\\"\"},\"result\":\"true\"}" + gap + k_init + gap);
        });
        EXPECT_EQ(0, command("start", nm.port));
        nm_thread.join();
        nm.send("k");
        EXPECT_EQ("k", nm.recv(1));
    }
    EXPECT_EQ(0, command("stop", "1"));
}

// What a device says right before it closes still reaches NM, then the tunnel ends.
TEST(RemoteTelnet, DeviceSaysFarewell)
{
    NmEnd nm;
    DeviceEnd device([](int fd) {
        (void)read_upto(fd, 1);
        (void)!send(fd, "bye\r\n", 5, MSG_NOSIGNAL);
    });
    for (int i = 0; i < 10; i++) {
        OpenTelnet tunnel(&nm, device.port);
        nm.send("q");
        EXPECT_EQ("bye\r\n", nm.recv(100));
        EXPECT_TRUE(holds_soon([] { return !conn_is_connected(REMOTE_TELNET_SERVER); }));
    }
}

// A stop gets through wherever the set-up stands, and the start that it ended reports failure.
TEST(RemoteTelnet, StopDuringTheSetUp)
{
    for (int said = 0; said < 3; said++) {
        SCOPED_TRACE(said);
        NmEnd nm(said == 0); // first: in the handshake
        TunnelAgent agent(remote_telnet_init, remote_telnet_turn, said == 0);
        std::thread starter([&] { EXPECT_EQ(-1, command("start", nm.port)); });
        nm.fd = accept(nm.listener, nullptr, nullptr);
        EXPECT_TRUE(readable_within(nm.fd, 5000));
        if (said == 2) {
            (void)!send(nm.fd, k_accept, strlen(k_accept), 0);
            usleep(50000);
        }
        int64_t begin = wait_now_ms();
        EXPECT_EQ(0, command("stop", "1"));
        EXPECT_LT(wait_now_ms() - begin, 1000);
        starter.join();
        EXPECT_FALSE(conn_is_connected(REMOTE_TELNET_SERVER));
    }
}
