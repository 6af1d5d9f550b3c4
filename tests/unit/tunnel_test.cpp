#include "remote/tunnel.h"

#include "support.h"

#define MEMBERS(host, port) "\"action\":\"x\",\"host\":\"" host "\",\"port\":" port ",\"token\":\"T\",\"key\":-5"
#define REQUEST(host, port) "{\"param\":{" MEMBERS(host, port) ",\"sessionid\":\"S\"}}"

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
        {"plain", "http", REQUEST("127.0.0.1", "443"), 0, "443", ""},
        {"one more over https", "HttpS", REQUEST("127.0.0.1", "443"), 0, "444", ""},
        {"the last port over https", "https", REQUEST("127.0.0.1", "65535"), 0, "65536", ""},
        {"port too large", "http", REQUEST("127.0.0.1", "65536"), -1, nullptr, "[ERR] Invalid port: 65536!\n"},
        {"no port, nor anything else", "http", "{\"param\":{}}", -1, nullptr, "[ERR] Invalid port: -1!\n"},
        {"no param", "http", "{\"host\":\"127.0.0.1\"}", -1, nullptr, "[ERR] Invalid port: -1!\n"},
        {"no session", "http", "{\"param\":{" MEMBERS("127.0.0.1", "1") "}}", -1, nullptr, "[WRN] Req is bad\n"},
        {"no address", "http", REQUEST("no.such.invalid", "1"), -1, nullptr, "[WRN] Req is bad\n"},
        {"no JSON", "http", "{\"param\"", -1, nullptr, "[WRN] Error before JSON content: "},
    };
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.name);
        TunnelRequest request;
        info_edit([&](PluginInfo *next) { (void)text_set(next->nm_method, c.method); });
        LogLines log;
        EXPECT_EQ(c.result, tunnel_request_parse(c.payload, "Req is bad", &request));
        EXPECT_TRUE(log.has(c.line));
        if (c.port) {
            EXPECT_STREQ(c.port, request.port);
            EXPECT_STREQ("127.0.0.1", request.host);
            EXPECT_EQ(-5, request.key);
        }
    }
}
