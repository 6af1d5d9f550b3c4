#include <map>

#include "remote/remote_web.h"
#include "remote/web_frame.h"
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

static void device_set(const std::string &port)
{
    std::unique_ptr<PluginInfoEdit> edit(new PluginInfoEdit);
    plugin_info_edit_begin(edit.get());
    text_set(edit->next.dev_web.remote_ip, "127.0.0.1");
    text_set(edit->next.dev_web.remote_port, port.c_str());
    plugin_info_edit_mark(edit.get(), &edit->next.dev_web, sizeof(edit->next.dev_web));
    plugin_info_edit_commit(edit.get());
}

// An agent with an open tunnel between nm and device.
struct OpenTunnel {
    TunnelAgent agent;

    OpenTunnel(NmEnd *nm, const std::string &device_port) : agent(remote_web_init, remote_web_turn, nm->tls)
    {
        device_set(device_port);
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

// Answers every byte with as many bytes of the byte's pattern.
static std::function<void(int)> answers_of(size_t size)
{
    return [size](int fd) {
        for (std::string ask; !(ask = read_upto(fd, 1)).empty();)
            write_all(fd, pattern(size, (unsigned char)ask[0]));
    };
}

static void echo(int fd)
{
    char buf[4096];
    for (ssize_t len; (len = recv(fd, buf, sizeof(buf), 0)) > 0;)
        write_all(fd, std::string(buf, (size_t)len));
}

// Every id asks at once; each gets its answer whole and in order. Returns the milliseconds that it took.
static int64_t download(bool tls, int ids, size_t size)
{
    NmEnd nm(tls);
    DeviceEnd device(answers_of(size));
    OpenTunnel tunnel(&nm, device.port);
    int64_t begin = wait_now_ms();
    std::string asks;
    for (int id = 0; id < ids; id++)
        asks += frame(MSG_TYPE_REQ, (uint8_t)id, std::string(1, (char)id));
    EXPECT_TRUE(nm.send(asks));
    std::map<int, std::string> answers;
    for (size_t total = 0; total < size * (size_t)ids;) {
        Got got = next_frame(&nm);
        EXPECT_EQ(MSG_TYPE_RESP, got.type);
        if (got.payload.empty())
            break;
        answers[got.id] += got.payload;
        total += got.payload.size();
    }
    int64_t took_ms = wait_now_ms() - begin;
    for (int id = 0; id < ids; id++)
        EXPECT_TRUE(answers[id] == pattern(size, (unsigned)id)) << id;
    return took_ms;
}

TEST(RemoteWeb, DownloadsDoNotWaitForEachOther)
{
    constexpr size_t k_size = 1024 * 1024;
    int64_t one_ms = download(false, 1, k_size);
    EXPECT_GE(one_ms, 900); // 103 frames at least, 10 ms apart
    EXPECT_LT(download(false, 10, k_size), 3 * one_ms);
    EXPECT_LT(download(true, 10, k_size), 3 * one_ms);
}

// A request body goes up while the device's echo of it comes down; in frames of all sizes, many in one TLS record.
TEST(RemoteWeb, UploadAndDownloadAtOnce)
{
    for (bool tls : {false, true}) {
        NmEnd nm(tls);
        DeviceEnd device(echo);
        OpenTunnel tunnel(&nm, device.port);
        std::string body = pattern(1024 * 1024, 3);
        std::thread sender([&] {
            static const size_t k_sizes[] = {1, 16367, 0, 100, 7000, 16366, 3};
            std::string frames;
            for (size_t at = 0, i = 0; at < body.size(); i++) {
                std::string piece = body.substr(at, k_sizes[i % 7]);
                frames += frame(MSG_TYPE_REQ, 9, piece);
                at += piece.size();
            }
            EXPECT_TRUE(nm.send(frames));
        });
        std::string echoed;
        for (Got got; echoed.size() < body.size() && (got = next_frame(&nm)).type == MSG_TYPE_RESP;)
            echoed += got.payload;
        sender.join();
        EXPECT_TRUE(echoed == body) << echoed.size();
        EXPECT_EQ(1, device.accepted);
    }
}

TEST(RemoteWeb, FramesCutAtEveryByte)
{
    for (bool tls : {false, true}) {
        NmEnd nm(tls);
        DeviceEnd device(echo);
        OpenTunnel tunnel(&nm, device.port);
        std::string script = frame(MSG_TYPE_REQ, 1, "ab") + frame(99, 1, "??") + frame(MSG_TYPE_REQ, 1, "cd");
        for (size_t cut = 1; cut < script.size(); cut++) {
            SCOPED_TRACE(cut);
            nm.send(script.substr(0, cut));
            usleep(1000); // mostly two reads
            nm.send(script.substr(cut));
            std::string echoed;
            while (echoed.size() < 4) {
                Got got = next_frame(&nm);
                ASSERT_EQ(MSG_TYPE_RESP, got.type);
                echoed += got.payload;
            }
            EXPECT_EQ("abcd", echoed);
        }
    }
}

TEST(RemoteWeb, EitherSideEndsAnId)
{
    NmEnd nm;
    std::atomic<int> closed{0};
    DeviceEnd device([&](int fd) {
        std::string ask = read_upto(fd, 1);
        if (ask == "q") { // answers and closes
            write_all(fd, pattern(30000, 1));
            return;
        }
        EXPECT_EQ("", read_upto(fd, 1));
        closed++;
    });
    OpenTunnel tunnel(&nm, device.port);
    nm.send(frame(MSG_TYPE_REQ, 1, "q"));
    std::string answer;
    Got got;
    while ((got = next_frame(&nm)).type == MSG_TYPE_RESP)
        answer += got.payload;
    EXPECT_TRUE(answer == pattern(30000, 1));
    EXPECT_EQ(MSG_TYPE_DEV_DESTROY, got.type);
    EXPECT_EQ(1, got.id);
    EXPECT_EQ("", got.payload);

    nm.send(frame(MSG_TYPE_REQ, 2, "s") + frame(MSG_TYPE_WEB_DESTROY, 2, ""));
    EXPECT_TRUE(holds_soon([&] { return closed == 1; }));
    EXPECT_EQ(0xFF, next_frame(&nm, 50).type); // the device's end of id 2 is no news to NM
}

// Ten idle ids hold all slots; the eleventh waits until one is free, and a destroy ahead of it counts.
TEST(RemoteWeb, EleventhId)
{
    NmEnd nm;
    DeviceEnd device(echo);
    OpenTunnel tunnel(&nm, device.port);
    for (int id = 1; id <= 10; id++) {
        nm.send(frame(MSG_TYPE_REQ, (uint8_t)id, "a"));
        EXPECT_EQ(id, next_frame(&nm).id);
    }
    nm.send(frame(MSG_TYPE_WEB_DESTROY, 1, "") + frame(MSG_TYPE_REQ, 11, "b"));
    EXPECT_EQ(11, next_frame(&nm).id);
    // The same with a request of the destroyed id still held.
    nm.send(frame(MSG_TYPE_REQ, 2, "c") + frame(MSG_TYPE_WEB_DESTROY, 2, "") + frame(MSG_TYPE_REQ, 12, "d"));
    Got got;
    do
        got = next_frame(&nm);
    while (got.id == 2);
    EXPECT_EQ(12, got.id);
    EXPECT_EQ("d", got.payload);
}

// Commands overlap as they like; after the last stop nothing is left.
TEST(RemoteWeb, StormOfCommands)
{
    DeviceEnd nm([](int fd) { // a plain NM that asks for something and reads what comes
        (void)read_upto(fd, auth_bytes().size());
        for (int id = 0; id < 12; id++)
            write_all(fd, frame(MSG_TYPE_REQ, (uint8_t)id, "x") + frame(MSG_TYPE_WEB_DESTROY, (uint8_t)(id / 2), ""));
        while (!read_upto(fd, 1000).empty()) {
        }
    });
    DeviceEnd device(answers_of(50000));
    TunnelAgent agent(remote_web_init, remote_web_turn, false);
    device_set(device.port);
    (void)command("start", nm.port);
    (void)command("stop", "1");
    auto idle = [&] { return nm.alive == 0 && device.alive == 0 && !remote_web_device_thread_running(); };
    ASSERT_TRUE(holds_soon(idle));
    int descriptors = open_descriptors();
    std::vector<std::thread> commanders;
    for (unsigned seed = 1; seed <= 4; seed++) {
        commanders.emplace_back([&nm, seed] {
            unsigned state = seed;
            for (int i = 0; i < 40; i++) {
                (void)command(rand_r(&state) % 3 ? "start" : "stop", nm.port);
                usleep(rand_r(&state) % 30000);
            }
        });
    }
    for (std::thread &commander : commanders)
        commander.join();
    EXPECT_EQ(0, command("stop", "1"));
    EXPECT_TRUE(holds_soon([&] { return idle() && open_descriptors() == descriptors; }));
}

// NM accepts and then says nothing while the handshake waits for it: a stop gets through, and no token went out.
TEST(RemoteWeb, StopDuringAHangingStart)
{
    NmEnd nm(true);
    TunnelAgent agent(remote_web_init, remote_web_turn, true);
    std::thread starter([&] { EXPECT_EQ(-1, command("start", nm.port)); });
    int fd = accept(nm.listener, nullptr, nullptr);
    ASSERT_TRUE(readable_within(fd, 5000)); // its ClientHello
    int64_t begin = wait_now_ms();
    EXPECT_EQ(0, command("stop", "1"));
    EXPECT_LT(wait_now_ms() - begin, 1000);
    starter.join();
    EXPECT_EQ(std::string::npos, read_upto(fd, 100000).find("TOK"));
    close(fd);
    EXPECT_TRUE(holds_soon([] { return !remote_web_device_thread_running(); }));
}
