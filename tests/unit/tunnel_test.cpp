#include "remote/tunnel.h"

#include <memory>

#include "log_capture.h"
#include "runtime/text.h"

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
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.name);
        TunnelRequest request;
        method_set(c.method);
        log_capture_begin();
        int result = tunnel_request_parse(c.payload, "Req is bad", &request);
        std::string log = log_capture_end();
        EXPECT_EQ(c.result, result);
        EXPECT_NE(std::string::npos, log.find(c.line)) << log;
        if (c.port) {
            EXPECT_STREQ(c.port, request.port);
            EXPECT_STREQ("127.0.0.1", request.host);
            EXPECT_EQ(-5, request.key);
        }
    }
}
