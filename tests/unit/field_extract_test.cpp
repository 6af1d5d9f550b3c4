#include <gtest/gtest.h>
#include <string>

#include "log_capture.h"
#include "transport/field_extract.h"

TEST(FieldExtract, Keys)
{
    static const struct {
        const char *msg;
        const char *key;
        const char *value;
    } k_cases[] = {
        {"{\"mode\":\"timing\"}", "mode", "timing"},
        {"{\"mode\"  :  timing,\"a\":1}", "mode", "timing"},
        {"{\"mode\":{\"x\":1}}", "mode", "x"},
        {"{\"mode\":\"a\\|b c\"}", "mode", "a\\|b"}, // bar and backslash belong to a value, a blank ends it
        {"{\"mode\":\"a%b\"}", "mode", "a"},
        {"{\"token\":\"a%b c,d\"}", "token", "a%b c"},
        {"{\"mode\":\"first\",\"mode\":\"second\"}", "mode", "first"},
        {"{\"mode\":\t\"x\"}", "mode", ""}, // a TAB is none of the characters before a value
        {"{\"Mode\":\"x\"}", "mode", ""},
        {"{\"modes\":\"x\"}", "mode", ""},
        {"", "mode", ""},
    };
    for (const auto &c : k_cases) {
        char value[32];
        memset(value, 'x', sizeof(value));
        log_capture_begin();
        json_key_extract(c.msg, c.key, value, sizeof(value));
        log_capture_end();
        EXPECT_STREQ(c.value, value) << c.msg;
    }
}

TEST(FieldExtract, RegexResults)
{
    static const struct {
        const char *msg;
        const char *regex;
        int result;
        const char *value;
        const char *log;
    } k_cases[] = {
        {"7.log.old", "^([0-9]*)\\.log", 0, "7",
         "[INF] pmatch[1].rm_eo: 1, pmatch[1].rm_so: 0, matched_len: 1, matched value: 7\n"},
        {".log", "^([0-9]*)\\.log", 0, "",
         "[INF] pmatch[1].rm_eo: 0, pmatch[1].rm_so: 0, matched_len: 0, matched value: \n"},
        {"notes.txt", "^([0-9]*)\\.log", 1, "",
         "[INF] No match for REGEX: \"^([0-9]*)\\.log\", msg: notes.txt\n"},
        {"abc", "b", 0, "", "[WRN] Unknown status: 0\n[INF] No match for REGEX: b, msg: abc\n"},
        {"1234567", "(.*)", 0, "1234567",
         "[INF] pmatch[1].rm_eo: 7, pmatch[1].rm_so: 0, matched_len: 7, matched value: 1234567\n"},
        {"12345678", "(.*)", -1, "",
         "[INF] pmatch[1].rm_eo: 8, pmatch[1].rm_so: 0, matched_len: 8, matched value: 12345678\n"
         "[WRN] value_len: 8 not enough, needed matched_len: 9, matched_str: 12345678!\n"},
        {nullptr, nullptr, -1, nullptr, "[ERR] msg is NULL!\n[ERR] regex is NULL!\n"},
    };
    for (const auto &c : k_cases) {
        char value[8] = "unset";
        log_capture_begin();
        EXPECT_EQ(c.result, regex_extract(c.msg, c.regex, value, sizeof(value)));
        EXPECT_EQ(c.log, log_capture_end());
        EXPECT_STREQ(c.value ? c.value : "unset", value);
    }
    char value[8];
    log_capture_begin();
    EXPECT_GT(regex_extract("x", "(", value, sizeof(value)), 1);
    EXPECT_EQ(0u, log_capture_end().find("[WRN] Reg: '(' compiling failed: "));
}

TEST(FieldExtract, JsonMembers)
{
    cJSON *root = cJSON_Parse("{\"Name\":\"abcdefgh\",\"n\":443.9,\"big\":1e10,\"t\":\"5\"}");
    char text[8];
    int32_t number = -7;
    log_capture_begin();
    EXPECT_EQ(0, json_get_string(root, "nAME", text, sizeof(text)));
    EXPECT_STREQ("abcdefg", text);
    EXPECT_EQ(-1, json_get_string(root, "n", text, sizeof(text)));
    EXPECT_STREQ("", text);
    EXPECT_EQ(-1, json_get_int(root, "t", &number));
    EXPECT_EQ(-7, number);
    EXPECT_EQ(0, json_get_int(root, "N", &number));
    EXPECT_EQ(443, number);
    EXPECT_EQ(0, json_get_int(root, "big", &number));
    EXPECT_EQ(INT32_MAX, number);
    EXPECT_EQ(-1, json_get_string(root, "Name", text, 0));
    EXPECT_EQ(-1, json_get_int(nullptr, "n", &number));
    EXPECT_EQ("[WRN] Not found string value for key: n!\n[WRN] Not found int value for key: t!\n"
              "[WRN] Invalid parameters!\n[WRN] Invalid parameters!\n",
              log_capture_end());
    cJSON_Delete(root);
}
