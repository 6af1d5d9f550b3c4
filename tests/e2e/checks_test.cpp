// The simulators' own judgement: what is right passes, each fault is named.
#include <gtest/gtest.h>

#include "device_check.h"
#include "harness.h"
#include "nm_check.h"

static const char k_heartbeat[] = "{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"A1\"\n}";

static std::string request_text(const std::string &name, const std::string &body)
{
    return "POST /dev-api/A1/" + name +
           " HTTP/1.1\r\nHOST: 127.0.0.1:80\r\nAccept:\r\nContent-Type: application/json\r\n"
           "secretKey: b7c2bef02ff598441ae8d05209dca008\r\npver: 1.3\r\ndeviceSn: A1\r\nptype: 12\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

static std::string replaced(std::string text, const std::string &what, const std::string &with)
{
    const size_t at = text.find(what);
    return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

static const struct {
    const char *what, *with, *complaint; // part of it
} k_requests[] = {
    {"", "", ""},
    {"HOST:", "Host:", "header 1 is 'Host: 127.0.0.1:80'"},
    {"Accept:", "Accept: ", "header 2"},
    {"b7c2", "b7c3", "header 4"},
    {"pver: 1.3\r\ndeviceSn: A1", "deviceSn: A1\r\npver: 1.3", "header 5"},
    {"ptype: 12\r\n", "", "no ptype"},
    {"POST", "GET", "not a POST"},
    {"HTTP/1.1", "HTTP/1.0", "not a POST of HTTP/1.1"},
    {"/A1/", "/B2/", "serial number 'B2'"},
    {"heartbeat", "heartbeats", "unknown path"},
    {"\"ver\":", "\"ver\" ", "no JSON"},
    {"{\n\t", "{\n ", "not laid out"},
};

TEST(Checks, RequestsAtNm)
{
    for (const auto &row : k_requests) {
        SCOPED_TRACE(row.what);
        const std::string text = replaced(request_text("heartbeat", k_heartbeat), row.what, row.with);
        HttpRequest request;
        std::string wrong;
        request.body.clear();
        const int taken = http_request_cut(text + "POST", &request, &wrong);
        if (taken > 0) // a body that has grown or shrunk is cut by its Content-Length
            wrong = nm_check_request(request, "127.0.0.1:80", "A1");
        EXPECT_NE(wrong.find(row.complaint), std::string::npos) << wrong;
        EXPECT_EQ(wrong.empty(), *row.complaint == '\0') << wrong;
    }
}

TEST(Checks, RequestsAreCutAtEveryByte)
{
    const std::string text = request_text("heartbeat", k_heartbeat);
    HttpRequest request;
    std::string wrong;
    for (size_t length = 0; length < text.size(); length++)
        ASSERT_EQ(http_request_cut(text.substr(0, length), &request, &wrong), 0) << length;
    EXPECT_EQ(http_request_cut(text + text, &request, &wrong), (int)text.size());
    EXPECT_EQ(http_request_cut("\x16\x03\x01", &request, &wrong), -1);
}

static const struct {
    const char *text;
    bool right;
} k_frames[] = {
    {"{\t\"sessionid\":\"s\",\t\"type\":\"cfg-ack\",\t\"result\":true,\t\"cause\":\"\",\t\"ver\":\"\"}", true},
    {"{\t\"sessionid\":\"s\",\t\"type\":\"cfg-ack\",\t\"result\":\"true\",\t\"cause\":\"\",\t\"ver\":\"\"}", false},
    {"{\"sessionid\":\"s\",\"type\":\"cfg-ack\",\"result\":true,\"cause\":\"\",\"ver\":\"\"}", false},
    {"{\t\"type\":\"alarm-ack\",\t\"msgId\":-1,\t\"result\":false,\t\"ver\":\"\"}", true},
    {"{\n\t\"type\":\"pong\"\n}\n", true},
    {"{\n\t\"type\":\"pong\"\n}", false},
    {"{\"type\":\"reboot\",\"n\":1}", true},
    {"{\"type\": \"reboot\"}", false},
    {"{\"n\":1}", false},
    {"reboot", false},
};

TEST(Checks, FramesAtTheDevice)
{
    for (const auto &row : k_frames) {
        std::string type;
        EXPECT_EQ(device_check_frame(row.text, &type).empty(), row.right) << row.text;
    }
}
