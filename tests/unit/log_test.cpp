#include <atomic>
#include <errno.h>
#include <regex>
#include <thread>

#include "runtime/log.h"
#include "runtime/wait.h"
#include "runtime/work_thread.h"
#include "support.h"

static std::string file_text(FILE *file)
{
    std::string text(8192, '\0');
    rewind(file);
    text.resize(fread(&text[0], 1, text.size(), file));
    return text;
}

static void stream_swap(FILE *stream, LogMode mode)
{
    ASSERT_EQ(0, log_swap_begin(false));
    log_mode_set(mode);
    log_stream_set(stream);
    log_swap_end();
}

// Which outputs a line reaches, by console setting, mode and open stream. Syslog itself is not looked at.
TEST(Log, TargetsFollowSettingModeAndStream)
{
    static const struct {
        int32_t log_std;
        LogMode mode;
        bool has_stream, to_file, to_console;
    } k_cases[] = {
        {0, LOG_MODE_SYSLOG, false, false, false}, {0, LOG_MODE_SYSLOG, true, false, false},
        {2, LOG_MODE_SYSLOG, false, false, true},  {2, LOG_MODE_SYSLOG, true, false, true},
        {0, LOG_MODE_FILE, false, false, true},    {0, LOG_MODE_FILE, true, true, false},
        {2, LOG_MODE_FILE, true, true, true},      {1, LOG_MODE_FILE, true, false, true},
        {1, LOG_MODE_SYSLOG, false, false, true},
    };
    for (const auto &c : k_cases) {
        SCOPED_TRACE(testing::Message() << c.log_std << ' ' << c.mode << ' ' << c.has_stream);
        FILE *file = tmpfile();
        stream_swap(c.has_stream ? file : nullptr, c.mode);
        LogLines log(6);
        g_log_std = c.log_std;
        log_info("line %d", 7);
        EXPECT_EQ(c.to_console ? "[INF] line 7\n" : "", log.text());
        stream_swap(nullptr, LOG_MODE_SYSLOG);
        EXPECT_EQ(c.to_file, file_text(file).find("][INF] line 7\n") != std::string::npos);
        fclose(file);
    }
}

TEST(Log, LayoutOfBothLines)
{
    FILE *file = tmpfile();
    stream_swap(file, LOG_MODE_FILE);
    work_thread_set_name("50%s full");
    testing::internal::CaptureStdout();
    g_log_std = 2;
    g_log_level = 6;
    errno = EADDRINUSE;
    log_error("%s=%d", "a", 1);
    EXPECT_EQ(EADDRINUSE, errno); // though the stream has just found out that it is no terminal
    std::string console = testing::internal::GetCapturedStdout();
    stream_swap(nullptr, LOG_MODE_SYSLOG);
    std::string prefix = "\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} 50%s full:[0-9]+\\]";
    EXPECT_TRUE(std::regex_match(file_text(file), std::regex(prefix + "\\[ERR\\] a=1\n"))) << file_text(file);
    EXPECT_TRUE(std::regex_match(console, std::regex("\033\\[1;4;33;41m" + prefix + "\\[ERR\\] a=1\033\\[0m\n")))
        << console;
    fclose(file);
}

// The owner of the swap logs without the lock, other threads wait for the end of the swap.
TEST(Log, LinesDuringASwap)
{
    FILE *file = tmpfile();
    g_log_std = 0;
    g_log_level = 6;
    log_mode_set(LOG_MODE_FILE);
    ASSERT_EQ(0, log_swap_begin(false));
    log_stream_set(file);
    std::atomic<bool> other_logged{false};
    std::thread other([&] {
        log_info("other");
        other_logged = true;
    });
    log_info("owner");
    wait_cadence_ms(50);
    EXPECT_FALSE(other_logged);
    log_swap_end();
    other.join();
    ASSERT_EQ(0, log_swap_begin(true));
    int64_t start = wait_now_ms();
    std::thread([] { EXPECT_EQ(-1, log_swap_begin(true)); }).join(); // a limited wait
    EXPECT_GE(wait_now_ms() - start, 190);
    log_stream_set(nullptr);
    log_mode_set(LOG_MODE_SYSLOG);
    log_swap_end();
    std::string text = file_text(file);
    EXPECT_LT(text.find("owner"), text.find("other\n"));
    EXPECT_EQ(1, count_of(text, "other\n"));
    fclose(file);
}

TEST(Log, LevelsAndWhatTheyShow)
{
    const std::string all = "[DBG] d\n[INF] i\n[WRN] w\n[ERR] e\n";
    const char *first[] = {"", "[E", "[W", "[W", "[I", "[D"}; // of those that are shown
    for (uint32_t level = 2; level <= 7; level++) {
        LogLines log(level);
        log_debug("d");
        log_info("i");
        log_warn("w");
        log_error("e");
        EXPECT_EQ(level == 2 ? "" : all.substr(all.find(first[level - 2])), log.take()) << level;
    }
}
