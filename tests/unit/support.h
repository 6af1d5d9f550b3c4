// support.h - the agent's settings, and what it logs and prints, for tests.
#pragma once

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <vector>

#include "format_file.h"
#include "runtime/log.h"
#include "runtime/plugin_info.h"

typedef std::vector<std::string> Texts;

// The rows of a document's tables, docs/examples/NAME.md.
inline std::vector<Texts> examples(const char *name)
{
    const std::vector<Texts> rows = format_table(std::string(EXAMPLES_DIR) + "/" + name + ".md");
    EXPECT_FALSE(rows.empty());
    return rows;
}

// A directory with all that is put into it, for as long as this lives.
struct TempDir {
    std::string path = "/tmp/plugin_test_XXXXXX";

    TempDir()
    {
        EXPECT_NE(nullptr, mkdtemp(&path[0]));
    }
    TempDir(const TempDir &) = delete;
    ~TempDir()
    {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }
};

// work(PluginInfo *next) sets fields, which are then in force.
template <class Work> void info_edit(Work work)
{
    static PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    work(&edit.next);
    plugin_info_edit_mark(&edit, &edit.next, sizeof(edit.next));
    plugin_info_edit_commit(&edit);
}

inline PluginInfo info_now()
{
    PluginInfo info;
    plugin_info_get(&info);
    return info;
}

inline int count_of(const std::string &text, const std::string &wanted)
{
    int found = 0;
    for (size_t at = 0; (at = text.find(wanted, at)) != std::string::npos; at += wanted.size())
        found++;
    return found;
}

// Captures for as long as it lives: console lines as "[INF] text\n", without colours, time and thread; lines printed
// outside the log come as they are. What was logged so far can be read in between. Shown when the test fails.
struct LogLines {
    uint32_t level;
    std::string lines;

    explicit LogLines(uint32_t log_level = 7) : level(log_level)
    {
        begin();
    }
    ~LogLines()
    {
        end();
        if (testing::Test::HasFailure())
            printf("%s", lines.c_str());
    }
    void begin()
    {
        g_log_std = 1;
        g_log_level = level;
        testing::internal::CaptureStdout();
    }
    void end()
    {
        std::string raw = testing::internal::GetCapturedStdout();
        for (size_t at = 0; at < raw.size();) {
            if (raw[at] != '\033') {
                lines += raw[at++];
                continue;
            }
            at = std::min(raw.find('m', at), raw.size() - 1) + 1;
            if (at + 5 < raw.size() && raw[at] == '[' && raw[at + 5] == '-') // "[2024-..."
                at = std::min(raw.find(']', at), raw.size() - 1) + 1;
        }
    }
    const std::string &text()
    {
        end();
        begin();
        return lines;
    }
    // What came since the last take.
    std::string take()
    {
        std::string taken = text();
        lines.clear();
        return taken;
    }
    int count(const std::string &wanted)
    {
        return count_of(text(), wanted);
    }
    bool has(const std::string &wanted)
    {
        return text().find(wanted) != std::string::npos;
    }
    // All of them, in this order.
    bool has_in_order(const Texts &wanted)
    {
        size_t at = 0;
        for (const std::string &one : wanted) {
            at = text().find(one, at);
            if (at == std::string::npos)
                return false;
            at += one.size();
        }
        return true;
    }
};
