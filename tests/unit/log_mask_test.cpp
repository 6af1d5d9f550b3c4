#include <stdlib.h>

#include "runtime/log_mask.h"
#include "support.h"

TEST(LogMask, ValuesByName)
{
    for (const Texts &row : examples("log-masking")) {
        char *masked = log_mask(row[0].c_str());
        EXPECT_STREQ(row[1].c_str(), masked);
        free(masked);
    }
}

TEST(LogMask, OnlyWhenAsked)
{
    const std::string big = "{\"key\":5,\"pad\":\"" + std::string(1000000, ':') + "\"}";
    for (int secrets : {1, 0}) {
        g_log_secrets = secrets;
        LogLines log;
        log_info("%s %s%c", "{\"token\":\"abc\"}", big.c_str(), '!');
        log_error("done");
        g_log_secrets = 1;
        EXPECT_EQ(secrets == 1, log.has("{\"token\":\"abc\"} {\"key\":5,"));
        EXPECT_EQ(secrets == 0, log.has("[INF] {\"token\":\"***\"} {\"key\":***,\"pad\":\"::"));
        EXPECT_TRUE(log.has(":\"}!\n[ERR] done\n"));
    }
}
