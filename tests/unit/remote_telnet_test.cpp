#include "remote/remote_telnet.h"

#include "log_capture.h"
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

TEST(RemoteTelnet, SetUpRefused)
{
    static const struct {
        const char *name;
        const char *answer; // null: NM closes instead
        const char *ctrl;   // null: none
        const char *line;
        int device_conns;
    } k_cases[] = {
        {"not let in", "{\"result\":\"false\"}", nullptr, "Remote-telnet authentication/INIT failed!", 0},
        {"closed", nullptr, nullptr, "Remote-telnet authentication/INIT failed!", 0},
        {"no answer at all", "", "", "Receive remote-telnet authentication response timeout!", 0},
        {"closed before the control message", k_accept, nullptr, "Receive failed with ret: 0!", 0},
        {"no control message", k_accept, "", "Receive remote-telnet authentication auth_rsp timeout!", 0},
        {"other type", k_accept, "{\"type\":\"EXIT\"}", "Create remote telnet tunnel to NM failed!", 0},
        {"both at once, other type", "{\"result\":\"true\"}{\"type\":\"EXIT\"}", "", "ctrl_msg: {\"type\":\"EXIT\"}",
         0},
    };
    TunnelAgent agent(remote_telnet_init, remote_telnet_turn, false);
    DeviceEnd device(echo);
    device_set(device.port);
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.name);
        NmEnd nm;
        std::thread nm_thread([&] {
            EXPECT_TRUE(nm.accept_agent());
            EXPECT_EQ(auth_bytes(), nm.recv(auth_bytes().size()));
            nm.send(c.answer ? c.answer : "");
            usleep(20000);
            nm.send(c.ctrl ? c.ctrl : "");
            if (!c.answer || !c.ctrl)
                shutdown(nm.fd, SHUT_WR);
            EXPECT_EQ("", nm.recv(1, 20000)); // until the agent closes
        });
        std::string log = log_of([&] { EXPECT_EQ(-1, command("start", nm.port)); });
        nm_thread.join();
        expect_in_order(log, {"Sending authentication: ", c.line, "Authentication/INIT failure!"});
        EXPECT_EQ(c.device_conns, device.accepted);
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

// A fresh session of the device, without the text that asked for it.
TEST(RemoteTelnet, InitReconnectsTheDevice)
{
    NmEnd nm;
    std::atomic<int> sessions{0};
    DeviceEnd device([&](int fd) {
        std::string hello = "login " + std::to_string(++sessions) + ": ";
        (void)!send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
        echo(fd);
    });
    OpenTelnet tunnel(&nm, device.port);
    EXPECT_EQ("login 1: ", nm.recv(9));
    nm.send(k_init);
    EXPECT_EQ("login 2: ", nm.recv(9));
    nm.send("root");
    EXPECT_EQ("root", nm.recv(4));
}

TEST(RemoteTelnet, KeysReachAFloodingDevice)
{
    NmEnd nm;
    std::atomic<bool> interrupted{false};
    DeviceEnd device([&](int fd) {
        std::string line(1000, 'y');
        while (!interrupted && send(fd, line.data(), line.size(), MSG_NOSIGNAL) > 0) {
            char key;
            interrupted = recv(fd, &key, 1, MSG_DONTWAIT) == 1;
        }
    });
    OpenTelnet tunnel(&nm, device.port);
    EXPECT_EQ(100000u, nm.recv(100000).size());
    nm.send("\003");
    int64_t begin = wait_now_ms();
    while (!interrupted && wait_now_ms() - begin < 5000)
        (void)nm.recv(4000);
    EXPECT_TRUE(interrupted);
    EXPECT_LT(wait_now_ms() - begin, 1000);
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

TEST(RemoteTelnet, CyclesLeaveNothing)
{
    NmEnd nm;
    DeviceEnd device(echo);
    OpenTelnet tunnel(&nm, device.port);
    EXPECT_EQ(0, command("stop", "1"));
    nm.drop();
    ASSERT_TRUE(holds_soon([&] { return device.alive == 0; }));
    int descriptors = open_descriptors();
    int threads = count_threads();
    for (int cycle = 0; cycle < 50; cycle++) {
        OpenTelnet::start(&nm);
        nm.send("some keys");
        if (cycle % 3 == 0) {
            OpenTelnet::start(&nm); // while it runs
            EXPECT_EQ(0, command("stop", "1"));
        } else if (cycle % 3 == 1) {
            EXPECT_EQ(0, command("stop", "1"));
        } else {
            nm.drop();
            EXPECT_TRUE(holds_soon([] { return !conn_is_connected(REMOTE_TELNET_DEVICE); }));
        }
    }
    nm.drop();
    EXPECT_TRUE(holds_soon([&] { return open_descriptors() == descriptors && count_threads() == threads; }));
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
