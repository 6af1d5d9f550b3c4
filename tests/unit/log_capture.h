// log_capture.h - what the agent logs and prints between begin and end: the console's lines as "[INF] text\n", without
// colours, time and thread. Lines printed outside the log come as they are.
#pragma once

#include <gtest/gtest.h>
#include <regex>
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
    static const std::regex k_decoration("\033\\[[0-9;]*m(\\[\\s*[0-9]+-[^\\]]*\\])?");
    return std::regex_replace(testing::internal::GetCapturedStdout(), k_decoration, "");
}
