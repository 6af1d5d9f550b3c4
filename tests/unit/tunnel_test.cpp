#include "remote/tunnel.h"

#include "log_capture.h"
#include "runtime/text.h"
#include "tunnel_peer.h"

static void method_set(const char *method)
{
    std::unique_ptr<PluginInfoEdit> edit(new PluginInfoEdit);
    plugin_info_edit_begin(edit.get());
    plugin_info_edit_text(edit.get(), edit->next.nm_method, method);
    plugin_info_edit_commit(edit.get());
}

TEST(Tunnel, RequestParse)
{
    static const struct {
        const char *name;
        const char *method;
        const char *payload;
        int result;
        const char *port;
        const char *line; // in the log
    } k_cases[] = {
        {"plain", "http",
         R"({"param":{"action":"start","host":"127.0.0.1","port":443,"token":"T","key":-5,"sessionid":"S"}})", 0, "443",
         ""},
        {"one more over https", "HttpS",
         R"({"param":{"action":"x","host":"127.0.0.1","port":443,"token":"T","key":-5,"sessionid":"S"}})", 0, "444",
         ""},
        {"the last port over https", "https",
         R"({"param":{"action":"x","host":"127.0.0.1","port":65535,"token":"T","key":-5,"sessionid":"S"}})", 0, "65536",
         ""},
        {"port too large", "http",
         R"({"param":{"action":"x","host":"127.0.0.1","port":65536,"token":"T","key":-5,"sessionid":"S"}})", -1,
         nullptr, "[ERR] Invalid port: 65536!\n"},
        {"no port, nor anything else", "http", R"({"param":{}})", -1, nullptr, "[ERR] Invalid port: -1!\n"},
        {"no param", "http", R"({"host":"127.0.0.1"})", -1, nullptr, "[ERR] Invalid port: -1!\n"},
        {"no session", "http", R"({"param":{"action":"x","host":"127.0.0.1","port":1,"token":"T","key":-5}})", -1,
         nullptr, "[WRN] Req is bad\n"},
        {"no address", "http",
         R"({"param":{"action":"x","host":"no.such.invalid","port":1,"token":"T","key":-5,"sessionid":"S"}})", -1,
         nullptr, "[WRN] Req is bad\n"},
        {"no JSON", "http", "{\"param\"", -1, nullptr, "[WRN] Error before JSON content: "},
    };
    start_process_once();
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.name);
        TunnelRequest request;
        method_set(c.method);
        log_capture_begin();
        int result = tunnel_request_parse(c.payload, "Req is bad", &request);
        std::string log = log_capture_end();
        EXPECT_EQ(c.result, result);
        EXPECT_TRUE(has_text(log, c.line)) << log;
        if (c.port) {
            EXPECT_STREQ(c.port, request.port);
            EXPECT_STREQ("127.0.0.1", request.host);
            EXPECT_EQ(-5, request.key);
        }
    }
}

TEST(Tunnel, HalfTunnelReplacesAndCloses)
{
    start_process_once();
    std::string port;
    int listener = listen_socket(&port);
    TunnelPeer peer = {};
    text_set(peer.remote_ip, "127.0.0.1");
    text_set(peer.remote_port, port.c_str());
    EXPECT_EQ(-1, half_tunnel_create(REMOTE_TELNET_DEVICE, nullptr));
    EXPECT_EQ(0, half_tunnel_create(REMOTE_TELNET_DEVICE, &peer));
    int first = accept(listener, nullptr, nullptr);
    close(listener);

    std::string log = log_of([&] { EXPECT_EQ(-1, half_tunnel_create(REMOTE_TELNET_DEVICE, &peer)); });
    expect_in_order(log,
                    {"Preparing half tunnel... type: REMOTE_TELNET_DEVICE, peer: 127.0.0.1:" + port + " (local: :)",
                     "Shutdown and close socket: ", "has been removed,", "TCP connecting", "TCP connect failed!",
                     "Create connection to IP: 127.0.0.1, Port: " + port + " failed!"});
    EXPECT_EQ("", read_upto(first, 1)); // closed although nothing replaced it
    close(first);
    log = log_of([] { EXPECT_EQ(0, half_tunnel_close(REMOTE_TELNET_SERVER, REMOTE_TELNET_DEVICE)); });
    EXPECT_EQ("", log);
}

// A command that waits for the lock calls off what the holder waits for; the tunnel's own thread makes way.
TEST(Tunnel, CommandsComeFirst)
{
    start_process_once();
    static TunnelLock lock = {PTHREAD_MUTEX_INITIALIZER, {0}};
    CallOff before;
    ASSERT_EQ(0, tunnel_try_lock(&lock, &before));
    std::thread command([] {
        CallOff mine;
        EXPECT_EQ(0, tunnel_lock(&lock, &mine));
        EXPECT_EQ(WAIT_TIMEOUT, wait_sleep_ms(1));
        tunnel_unlock(&lock, &mine);
    });
    EXPECT_EQ(WAIT_CUT, wait_sleep_ms(60000));
    CallOff second;
    EXPECT_EQ(-1, tunnel_try_lock(&lock, &second));
    tunnel_unlock(&lock, &before);
    command.join();
    EXPECT_EQ(WAIT_TIMEOUT, wait_sleep_ms(1)); // the former call-off is back
    ASSERT_EQ(0, tunnel_try_lock(&lock, &before));
    tunnel_unlock(&lock, &before);
}
