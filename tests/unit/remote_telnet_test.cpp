#include "remote/remote_telnet.h"

#include <filesystem>

#include "peers.h"
#include "runtime/stop_internal.h"

// NM's listener and its end of the tunnel, if there is one.
struct NmEnd {
    std::string port;
    int listener = listen_socket(&port);
    int fd = -1;
};

static int command(const char *action, const NmEnd &nm)
{
    std::string text = std::string("{\"param\":{\"action\":\"") + action +
                       "\",\"host\":\"127.0.0.1\",\"port\":" + nm.port +
                       ",\"token\":\"t\",\"key\":7,\"sessionid\":\"s\"}}";
    return remote_telnet_req_handle(0, nullptr, text.c_str(), (uint32_t)text.size());
}

static void drop(NmEnd *nm)
{
    if (nm->fd >= 0)
        close(nm->fd);
    nm->fd = -1;
}

// The tunnel stands afterwards.
static void start(NmEnd *nm)
{
    static const char k_auth[] = "{\"ver\":\"0.1\",\"deviceSn\":\"A1\",\"token\":\"t\",\"key\":7,\"sessionid\":\"s\"}";
    std::thread answers([nm] {
        int fd = accept(nm->listener, nullptr, nullptr);
        drop(nm); // a tunnel that stood until now
        nm->fd = fd;
        EXPECT_EQ(std::string(k_auth, sizeof(k_auth)), read_upto(nm->fd, sizeof(k_auth)));
        peer_send(nm->fd, "{\"result\":\"true\"}{\"type\":\"INIT\"}");
    });
    EXPECT_EQ(0, command("start", *nm));
    answers.join();
}

static int threads_now()
{
    return (int)std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

static bool becomes_true(const std::function<bool()> &holds)
{
    for (int i = 0; i < 10000 && !holds(); i++)
        usleep(1000);
    return holds();
}

// Tunnels that end by a second start and a stop, by a stop alone, and by the loss of NM's connection; with keys still
// on the way or all of them echoed.
TEST(RemoteTelnet, CyclesLeaveNothing)
{
    start_process_once();
    NmEnd nm;
    Peer device([](int listener) { // echoes
        char buf[64];
        for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0; close(fd))
            for (ssize_t len; (len = recv(fd, buf, sizeof(buf), 0)) > 0;)
                (void)!send(fd, buf, (size_t)len, MSG_NOSIGNAL);
    });
    nm_set("1");
    info_edit([&](PluginInfo *next) {
        (void)text_set(next->plugin_version, "0.1");
        endpoint_set(&next->dev_telnet, device.port);
    });
    remote_telnet_init();
    std::thread agent([] {
        while (!g_exit_flag)
            remote_telnet_turn();
    });
    LogLines log;
    int descriptors = open_descriptors(), threads = threads_now();
    for (int cycle = 0; cycle < 60 && !HasFailure(); cycle++) {
        start(&nm);
        peer_send(nm.fd, "some keys");
        EXPECT_TRUE(cycle % 2 || read_upto(nm.fd, 9) == "some keys");
        if (cycle % 3 == 0)
            start(&nm);
        if (cycle % 3 < 2)
            EXPECT_EQ(0, command("stop", nm));
        else
            drop(&nm);
        EXPECT_TRUE(becomes_true([&] {
            if (readable_within(nm.listener, 0)) // comes again, unasked: turned away
                close(accept(nm.listener, nullptr, nullptr));
            return !conn_is_connected(REMOTE_TELNET_SERVER) && !conn_is_connected(REMOTE_TELNET_DEVICE);
        }));
    }
    drop(&nm);
    EXPECT_TRUE(becomes_true([&] { return open_descriptors() == descriptors && threads_now() == threads; }));
    stop_request(15);
    g_exit_flag = 1;
    agent.join();
    stop_reset_for_test();
    conn_remove_all();
    shutdown(device.listener, SHUT_RDWR);
    close(nm.listener);
}
