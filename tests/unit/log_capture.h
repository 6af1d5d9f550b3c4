// log_capture.h - what the agent logs and prints between begin and end: the console's lines as "[INF] text\n", without
// colours, time and thread. Lines printed outside the log come as they are.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <initializer_list>
#include <stdio.h>
#include <string.h>
#include <string>

#include "runtime/plugin_info.h"

inline void log_capture_begin(uint32_t level = 7)
{
    g_log_std = 1;
    g_log_level = level;
    testing::internal::CaptureStdout();
}

inline std::string log_capture_end()
{
    std::string raw = testing::internal::GetCapturedStdout(), text;
    for (size_t at = 0; at < raw.size();) {
        if (raw[at] != '\033') {
            text += raw[at++];
            continue;
        }
        at = std::min(raw.find('m', at), raw.size() - 1) + 1;
        if (at + 5 < raw.size() && raw[at] == '[' && raw[at + 5] == '-') // "[2024-..."
            at = std::min(raw.find(']', at), raw.size() - 1) + 1;
    }
    return text;
}

// Captures for as long as it lives; all that was logged so far can be read in between. Shown when the test fails.
struct LogLines {
    std::string lines;

    LogLines()
    {
        log_capture_begin();
    }
    ~LogLines()
    {
        lines += log_capture_end();
        if (testing::Test::HasFailure())
            printf("%s", lines.c_str());
    }
    const std::string &text()
    {
        lines += log_capture_end();
        log_capture_begin();
        return lines;
    }
    void clear()
    {
        (void)text();
        lines.clear();
    }
    int count(const std::string &wanted)
    {
        int found = 0;
        for (size_t at = 0; (at = text().find(wanted, at)) != std::string::npos; at += wanted.size())
            found++;
        return found;
    }
    bool has(const std::string &wanted)
    {
        return text().find(wanted) != std::string::npos;
    }
    // All of them, in this order.
    bool has_in_order(std::initializer_list<const char *> wanted)
    {
        size_t at = 0;
        for (const char *one : wanted) {
            at = text().find(one, at);
            if (at == std::string::npos)
                return false;
            at += strlen(one);
        }
        return true;
    }
};
