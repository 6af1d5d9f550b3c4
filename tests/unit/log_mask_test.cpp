#include <stdlib.h>

#include "runtime/log_mask.h"
#include "support.h"

TEST(LogMask, ValuesByName)
{
    const struct {
        const char *text, *masked;
    } cases[] = {
        {"", ""},
        {R"({"token":"abc","key":-12,"sessionid":"s"})", R"({"token":"***","key":***,"sessionid":"s"})"},
        {R"({ "Token" : "a\"b:c" , "KEY" :  7 })", R"({ "Token" : "***" , "KEY" :  *** })"},
        {R"({"key":"x"}{"token":null})", R"({"key":"***"}{"token":***})"},
        {R"({"token":"ab"c","key":1})", R"({"token":"***","key":***})"}, // as an authentication has it, without escapes
        {R"({"payload":"{\"token\":\"abc\",\"key\":5}"})", R"({"payload":"{\"token\":\"***\",\"key\":***}"})"},
        {R"({"key":{"token":"t"},"token":["key"]})", R"({"key":{"token":"***"},"token":["key"]})"},
        {R"({"token":""})", R"({"token":""})"},
        {R"({"token":"cut of)", R"({"token":"***)"},
        {R"({"key":12)", R"({"key":***)"},
        {"{\"token\":\"cut of\033[0m\n", "{\"token\":\"***\033[0m\n"},
        {R"({"tokens":"a","mykey":"b","key2":3})", R"({"tokens":"a","mykey":"b","key2":3})"},
        {R"("token":"a" and more, "token":"b")", R"("token":"***")"}, // uncertain: too much
        {"POST /\r\nsecretKey: 0123\r\npver: 1.3\r\n", "POST /\r\nsecretKey: ***\r\npver: 1.3\r\n"},
        {"header: secretKey: 0123,pver: 1.3, msg: {\"key\":1}", "header: secretKey: ***,pver: 1.3, msg: {\"key\":***}"},
        {"Matched! token: a b%20c", "Matched! token: ***"},
        {"Key: nm_tls:client_key is set to: /x", "Key: nm_tls:client_key is set to: /x"},
        {"Not found int value for key: key!", "Not found int value for key: key!"},
        {":\":token", ":\":token"},
    };
    for (const auto &c : cases) {
        char *masked = log_mask(c.text);
        EXPECT_STREQ(c.masked, masked);
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
