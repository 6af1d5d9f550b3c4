#include <fcntl.h>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device_files.h"
#include "nm/init_cfg.h"
#include "runtime/log.h"
#include "runtime/log_file.h"
#include "runtime/log_file_internal.h"
#include "support.h"

static void put_file(const std::string &path, size_t size, time_t modified)
{
    std::ofstream(path) << std::string(size, 'x');
    struct timespec times[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

// A row of docs/examples/log-files.md.
static void ring_row_check(const Texts &row)
{
    const TempDir temp;
    const std::string dir = temp.path + "/";
    std::istringstream files(std::regex_replace(row[1], std::regex(","), ""));
    std::string name;
    size_t size;
    for (time_t modified; files >> name >> size >> modified;) {
        put_file(dir + name, size, modified);
        EXPECT_TRUE(name[0] != '@' || symlink((dir + name).c_str(), (dir + name.substr(1)).c_str()) == 0);
    }
    LogLines log(6);
    EXPECT_EQ(row[2], std::to_string(log_dir_scan(dir.c_str())));
    int truncate = -1;
    (void)log.take();
    EXPECT_EQ(row[3], std::to_string(log_pick_slot(3, 100, &truncate)));
    EXPECT_EQ(row[4] == "continue" ? 0 : 1, truncate);
    const std::string file = row[4].size() > strlen("overwrite ") ? dir + row[4].substr(strlen("overwrite ")) : "";
    const std::string wanted =
        truncate ? "overwrite log file: '" + file + "' now.\n" : "less than limit: 100, reuse it.\n";
    EXPECT_EQ(log.text().size() - wanted.size(), log.text().find(wanted));
}

// The table of files keeps what earlier scans found, so every row wants a process of its own.
TEST(LogFile, PicksASlot)
{
    for (const Texts &row : examples("log-files")) {
        pid_t child = fork();
        if (child == 0) {
            SCOPED_TRACE(row[0]);
            ring_row_check(row);
            _exit(testing::Test::HasFailure());
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status) << row[0];
    }
}

TEST(LogFile, FillsAndSplits)
{
    const TempDir dir;
    const std::string base = dir.path + "/", logs = base + "logs/";
    LogLines console(6);
    std::ofstream(base + "init") << "{\"log_path\":\"" << logs << "\",\"max_files\":2,\"max_size\":64}";
    info_edit([&](PluginInfo *next) { (void)text_set(next->init_cfg_path, (base + "init").c_str()); });
    g_log_std = 0;
    log_settings_reader_set(init_cfg_parse_log);
    ASSERT_EQ(1, log_init());
    // Between the mode and the open the console is the only place left.
    EXPECT_EQ(1, console.count("Creating log directory: '" + logs + "' ..."));
    EXPECT_EQ(0, console.count("open successfully"));
    (void)console.take();
    g_log_std = 0;
    std::string line(900, 'x');
    for (int i = 0; i < 68; i++)
        log_info("%s", line.c_str());
    log_split_check();
    EXPECT_NE(0, access((logs + "1.log").c_str(), F_OK)); // some hundred bytes are missing
    for (int i = 0; i < 3; i++)
        log_info("%s", line.c_str());
    log_split_check();
    EXPECT_EQ(1, console.count("overwrite log file: '' now."));
    g_log_std = 0;
    log_close();
    log_close(); // silent without a file
    std::string first = file_text(logs + "0.log"), second = file_text(logs + "1.log");
    EXPECT_EQ(71, count_of(first, line));
    EXPECT_EQ(1, count_of(first, "reaches the limit of a single log file: 65536 bytes, split log file now..."));
    EXPECT_LT(first.find("max_log_file_size: 65536"), first.find("Close log file: " + logs + "0.log"));
    EXPECT_EQ(1, count_of(second, "Logfile: '" + logs + "1.log' open successfully, mode: 'w+', buffer size: 1024."));
    EXPECT_EQ(1, count_of(second, "Close log file: " + logs + "1.log"));
}
