#include "support.h"
#include "transport/field_extract.h"

TEST(FieldExtract, Keys)
{
    for (const Texts &row : examples("key-values")) {
        char value[32];
        memset(value, 'x', sizeof(value));
        LogLines log;
        json_key_extract(row[0].c_str(), row[1].c_str(), value, sizeof(value));
        EXPECT_EQ(row[2], value) << row[0];
    }
}

TEST(FieldExtract, RegexResults)
{
    static const struct {
        const char *msg, *regex;
        int result;
        const char *value, *log;
    } k_cases[] = {
        {"7.log.old", "^([0-9]*)\\.log", 0, "7",
         "[INF] pmatch[1].rm_eo: 1, pmatch[1].rm_so: 0, matched_len: 1, matched value: 7\n"},
        {"notes.txt", "^([0-9]*)\\.log", 1, "", "[INF] No match for REGEX: \"^([0-9]*)\\.log\", msg: notes.txt\n"},
        {"abc", "b", 0, "", "[WRN] Unknown status: 0\n[INF] No match for REGEX: b, msg: abc\n"},
        {"1234567", "()", 0, "", "[INF] pmatch[1].rm_eo: 0, pmatch[1].rm_so: 0, matched_len: 0, matched value: \n"},
        {"12345678", "(.*)", -1, "",
         "[INF] pmatch[1].rm_eo: 8, pmatch[1].rm_so: 0, matched_len: 8, matched value: 12345678\n"
         "[WRN] value_len: 8 not enough, needed matched_len: 9, matched_str: 12345678!\n"},
        {nullptr, nullptr, -1, nullptr, "[ERR] msg is NULL!\n[ERR] regex is NULL!\n"},
    };
    for (const auto &c : k_cases) {
        char value[8] = "unset";
        LogLines log;
        EXPECT_EQ(c.result, regex_extract(c.msg, c.regex, value, sizeof(value)));
        EXPECT_EQ(c.log, log.text());
        EXPECT_STREQ(c.value ? c.value : "unset", value);
    }
}
