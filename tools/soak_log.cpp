#include "soak_log.h"

#include <map>
#include <mutex>
#include <stdio.h>

#include "json_text.h"
#include "sim_loop.h"

static std::mutex s_lock; // guards what follows
static std::map<std::string, int> s_counts;
static int s_problems;

void soak_say(const std::string &line)
{
    static const long long s_begin_ms = monotonic_ms();
    printf("%6.1f s  %s\n", (double)(monotonic_ms() - s_begin_ms) / 1000, line.c_str());
    fflush(stdout);
}

void soak_problem(const std::string &text)
{
    soak_say("WRONG: " + json_one_line(text, 400));
    std::lock_guard<std::mutex> guard(s_lock);
    s_problems++;
}

int soak_problems()
{
    std::lock_guard<std::mutex> guard(s_lock);
    return s_problems;
}

void soak_check(bool holds, const std::string &what)
{
    holds ? soak_say("ok: " + what) : soak_problem(what);
}

void soak_count(const std::string &name)
{
    std::lock_guard<std::mutex> guard(s_lock);
    s_counts[name]++;
}

int soak_counted(const std::string &name)
{
    std::lock_guard<std::mutex> guard(s_lock);
    return s_counts[name];
}

std::string soak_counts()
{
    std::lock_guard<std::mutex> guard(s_lock);
    std::string line;
    for (const auto &row : s_counts)
        line += (line.empty() ? "" : ", ") + row.first + " " + std::to_string(row.second);
    return line;
}
