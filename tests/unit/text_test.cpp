#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include "runtime/text.h"

TEST(Text, CopiesAreCutToTheFieldAndSaySo)
{
    static const struct {
        const char *src;
        const char *kept;
        int result;
    } k_cases[] = {
        {nullptr, "", 0}, {"", "", 0}, {"abc", "abc", 0}, {"abcd", "abc", -1}, {"abcdefgh", "abc", -1},
    };
    for (const auto &c : k_cases) {
        char field[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(c.result, text_set(field, c.src));
        EXPECT_STREQ(c.kept, field);
        memset(field, 'x', sizeof(field));
        EXPECT_EQ(c.result, text_fmt(field, "%s", c.src ? c.src : ""));
        EXPECT_STREQ(c.kept, field);
    }
}

TEST(Text, AppendFillsWhatIsLeft)
{
    char text[8] = "";
    EXPECT_EQ(0, text_append(text, sizeof(text), "%d-", 12));
    EXPECT_EQ(0, text_append(text, sizeof(text), "%s", "3456"));
    EXPECT_EQ(-1, text_append(text, sizeof(text), "%s", "7"));
    EXPECT_STREQ("12-3456", text);
    char full[4] = {'a', 'b', 'c', 'd'}; // not even a NUL: nothing to append to
    EXPECT_EQ(-1, text_append(full, sizeof(full), "x"));
    EXPECT_EQ(0, memcmp(full, "abcd", 4));
}

TEST(Text, WordsAtOddAddresses)
{
    uint8_t bytes[6] = {};
    le32_put(bytes + 1, 0x80FF0102u);
    const uint8_t k_little[] = {0, 0x02, 0x01, 0xFF, 0x80, 0};
    EXPECT_EQ(0, memcmp(k_little, bytes, sizeof(bytes)));
    EXPECT_EQ(0x80FF0102u, le32_get(bytes + 1));
    be32_put(bytes + 1, 0x80FF0102u);
    const uint8_t k_big[] = {0, 0x80, 0xFF, 0x01, 0x02, 0};
    EXPECT_EQ(0, memcmp(k_big, bytes, sizeof(bytes)));
    EXPECT_EQ(0x80FF0102u, be32_get(bytes + 1));
    EXPECT_EQ(INT32_MAX, saturate_i32(INT64_C(2147483648)));
    EXPECT_EQ(INT32_MIN, saturate_i32(-INT64_C(2147483649)));
    EXPECT_EQ(-1, saturate_i32(-1));
}
