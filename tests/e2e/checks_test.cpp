// The simulators' own judgement: what is right passes, each fault is named.
#include <gtest/gtest.h>

#include "device_check.h"
#include "harness.h"
#include "nm_check.h"

static const char k_request[] =
    "POST /dev-api/A1/heartbeat HTTP/1.1\r\nHOST: 127.0.0.1:80\r\nAccept:\r\nContent-Type: application/json\r\n"
    "secretKey: b7c2bef02ff598441ae8d05209dca008\r\npver: 1.3\r\ndeviceSn: A1\r\nptype: 12\r\n"
    "Content-Length: 34\r\n\r\n{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"A1\"\n}";

static const struct {
    const char *what, *with, *complaint; // part of it
} k_requests[] = {
    {"", "", ""},
    {"HOST:", "Host:", "header 1 is 'Host: 127.0.0.1:80'"},
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
        std::string text = k_request, wrong;
        HttpRequest request;
        text.replace(text.find(row.what), strlen(row.what), row.with);
        if (http_request_cut(text + "POST", &request, &wrong) > 0)
            wrong = nm_check_request(request, "127.0.0.1:80", "A1");
        EXPECT_TRUE(text_has(wrong, row.complaint) && wrong.empty() == (*row.complaint == '\0')) << wrong;
    }
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
    {"reboot", false},
};

TEST(Checks, FramesAtTheDevice)
{
    std::string type;
    for (const auto &row : k_frames)
        EXPECT_EQ(row.right, device_check_frame(row.text, &type).empty()) << row.text;
}
