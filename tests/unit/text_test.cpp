#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include "runtime/text.h"

TEST(Text, CopiesAreCutToTheFieldAndSaySo)
{
    static const struct {
        const char *src, *kept;
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
