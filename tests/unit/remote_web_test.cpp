#include <map>

#include "remote/remote_web.h"
#include "remote/web_frame.h"
#include "runtime/text.h"
#include "transport/conn_registry.h"
#include "tunnel_peer.h"

static std::string frame(uint8_t type, uint8_t id, const std::string &payload)
{
    WebHeader header = {(uint32_t)payload.size(), type, {1, 2, 3, 4, 5, 6, 7, id}};
    std::string bytes(WEB_HEADER_SIZE, '\0');
    web_header_put(&header, (uint8_t *)&bytes[0]);
    return bytes + payload;
}

struct Got {
    uint8_t type;
    uint8_t id;
    std::string payload;
};

// The next frame that the agent sends; type 0xFF when none comes.
static Got next_frame(NmEnd *nm, int wait_ms = 5000)
{
    std::string bytes = nm->recv(WEB_HEADER_SIZE, wait_ms);
    if (bytes.size() < WEB_HEADER_SIZE)
        return {0xFF, 0, ""};
    EXPECT_EQ(std::string("\x00\x00\xDD\xCC", 4), bytes.substr(0, 4));
    WebHeader header = web_header_get((const uint8_t *)bytes.data());
    return {header.type, header.msg_id[7], nm->recv(header.length)};
}

static int command(const char *action, const std::string &port)
{
    std::string text = tunnel_command(action, port);
    return remote_web_req_handle(0, nullptr, text.c_str(), (uint32_t)text.size());
}

// An agent with an open tunnel between nm and device.
struct OpenTunnel {
    TunnelAgent agent;

    OpenTunnel(NmEnd *nm, const std::string &device_port)
        : agent(remote_web_init, remote_web_turn, nm->tls)
    {
        std::unique_ptr<PluginInfoEdit> edit(new PluginInfoEdit);
        plugin_info_edit_begin(edit.get());
        text_set(edit->next.dev_web.remote_ip, "127.0.0.1");
        text_set(edit->next.dev_web.remote_port, device_port.c_str());
        plugin_info_edit_mark(edit.get(), &edit->next.dev_web, sizeof(edit->next.dev_web));
        plugin_info_edit_commit(edit.get());
        start(nm);
    }

    static void start(NmEnd *nm)
    {
        std::thread nm_thread([nm] {
            EXPECT_TRUE(nm->accept_agent());
            EXPECT_EQ(auth_bytes(), nm->recv(auth_bytes().size()));
        });
        EXPECT_EQ(0, command("start", nm->port));
        nm_thread.join();
    }

    ~OpenTunnel()
    {
        EXPECT_EQ(0, command("stop", "1"));
        EXPECT_TRUE(holds_soon([] { return !remote_web_device_thread_running(); }));
    }
};

static void write_all(int fd, const std::string &bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;
        sent += (size_t)count;
    }
}

// Ten ids ask at once; each gets its answer whole and in order.
static void download(bool tls, int ids, size_t size, int64_t *took_ms)
{
    NmEnd nm(tls);
    DeviceEnd device([size](int fd) {
        std::string ask = read_upto(fd, 1);
        write_all(fd, pattern(size, (unsigned char)ask[0]));
        (void)read_upto(fd, 1); // until the agent closes
    });
    OpenTunnel tunnel(&nm, device.port);
    int64_t begin = wait_now_ms();
    std::string asks;
    for (int id = 0; id < ids; id++)
        asks += frame(MSG_TYPE_REQ, (uint8_t)id, std::string(1, (char)id));
    ASSERT_TRUE(nm.send(asks));
    std::map<int, std::string> answers;
    for (size_t total = 0; total < size * (size_t)ids;) {
        Got got = next_frame(&nm);
        ASSERT_EQ(MSG_TYPE_RESP, got.type);
        answers[got.id] += got.payload;
        total += got.payload.size();
    }
    *took_ms = wait_now_ms() - begin;
    for (int id = 0; id < ids; id++)
        EXPECT_TRUE(answers[id] == pattern(size, (unsigned)id)) << id;
}

TEST(RemoteWeb, DownloadsDoNotWaitForEachOther)
{
    int64_t one_ms, ten_ms, ten_tls_ms;
    download(false, 1, 512 * 1024, &one_ms);
    download(false, 10, 512 * 1024, &ten_ms);
    download(true, 10, 512 * 1024, &ten_tls_ms);
    printf("%lld %lld %lld\n", (long long)one_ms, (long long)ten_ms, (long long)ten_tls_ms);
    EXPECT_LT(ten_ms, 2 * one_ms);
}
