#include "remote/remote_telnet.h"
#include "transport/conn_registry.h"
#include "tunnel_peer.h"

static int command(const char *action, const std::string &port)
{
    std::string text = tunnel_command(action, port);
    return remote_telnet_req_handle(0, nullptr, text.c_str(), (uint32_t)text.size());
}

static const char k_accept[] = "{\"result\":\"true\"}";
static const char k_init[] = "{\"type\":\"INIT\"}";

// Stands until the end of its scope.
struct OpenTelnet {
    TunnelAgent agent;

    OpenTelnet(NmEnd *nm, const std::string &device_port) : agent(remote_telnet_init, remote_telnet_turn, nm->tls)
    {
        device_set(device_port);
        std::thread nm_thread([nm] {
            EXPECT_TRUE(nm->accept_agent());
            EXPECT_EQ(auth_bytes(), nm->recv(auth_bytes().size()));
            nm->send(k_accept);
            usleep(20000); // two texts, two reads
            nm->send(k_init);
        });
        EXPECT_EQ(0, command("start", nm->port));
        nm_thread.join();
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

TEST(RemoteTelnet, RelaysEveryByteValueBothWays)
{
    for (bool tls : {false, true}) {
        NmEnd nm(tls);
        DeviceEnd device(echo);
        OpenTelnet tunnel(&nm, device.port);
        std::string bytes = pattern(64 * 1024, 5);
        std::thread sender([&] { EXPECT_TRUE(nm.send(bytes)); });
        EXPECT_TRUE(nm.recv(bytes.size()) == bytes);
        sender.join();
        int64_t begin = wait_now_ms();
        for (int i = 0; i < 20; i++) {
            nm.send("x");
            EXPECT_EQ("x", nm.recv(1));
        }
        printf("%lld\n", (long long)(wait_now_ms() - begin));
    }
}
