#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "runtime/log.h"
#include "runtime/log_file.h"
#include "runtime/plugin_info.h"

static std::string make_dir()
{
    char path[] = "/tmp/log_file_XXXXXX";
    return std::string(mkdtemp(path)) + "/";
}

static void put_file(const std::string &path, size_t size, time_t modified)
{
    std::ofstream(path) << std::string(size, 'x');
    struct timespec times[2] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

static std::string content_of(const std::string &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

static int count_of(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        count++;
    return count;
}

// Expects the slot that is picked after a scan of files (name, size, time), out of 3 slots of 100 bytes.
struct RingFile {
    const char *name;
    size_t size;
    time_t modified;
};
struct RingCase {
    const char *what;
    RingFile files[5];
    int valid;
    int slot;
    int truncate;
    const char *last_line; // "<dir>" stands for the directory
};
static const RingCase k_ring_cases[] = {
    {"empty", {}, 0, 0, 1, "[INF] Reach the limit of log file number: 3, overwrite log file: '' now.\n"},
    {"room in the first",
     {{"0.log", 99, 50}},
     1, 0, 0, "[INF] Log file: '<dir>0.log' has size: 99, less than limit: 100, reuse it.\n"},
    {"full at the limit, an unused slot is next",
     {{"0.log", 100, 50}},
     1, 1, 1, "[INF] Reach the limit of log file number: 3, overwrite log file: '' now.\n"},
    {"room wins over an unused slot",
     {{"0.log", 100, 50}, {"2.log", 0, 60}},
     2, 2, 0, "[INF] Log file: '<dir>2.log' has size: 0, less than limit: 100, reuse it.\n"},
    {"all full, the oldest",
     {{"0.log", 100, 50}, {"1.log", 100, 40}, {"2.log", 100, 60}},
     3, 1, 1, "[INF] Reach the limit of log file number: 3, overwrite log file: '<dir>1.log' now.\n"},
    {"all as old, the lowest",
     {{"0.log", 100, 50}, {"1.log", 100, 50}, {"2.log", 100, 50}},
     3, 0, 1, "[INF] Reach the limit of log file number: 3, overwrite log file: '<dir>0.log' now.\n"},
    {"beyond the ring, no number at all, a tail",
     {{"3.log", 1, 50}, {".log", 100, 50}, {"1.log.old", 100, 50}, {"99999999999999.log", 1, 50}, {"10.log", 1, 50}},
     3, 2, 1, "[INF] Reach the limit of log file number: 3, overwrite log file: '' now.\n"},
};

static void ring_case_check(const RingCase &c)
{
    std::string dir = make_dir();
    for (const RingFile &file : c.files) {
        if (file.name)
            put_file(dir + file.name, file.size, file.modified);
    }
    log_capture_begin(6);
    EXPECT_EQ(c.valid, log_dir_scan(dir.c_str()));
    int truncate = -1;
    EXPECT_EQ(c.slot, log_pick_slot(3, 100, &truncate));
    std::string log = log_capture_end(), last_line = c.last_line;
    EXPECT_EQ(c.truncate, truncate);
    size_t at = last_line.find("<dir>");
    if (at != std::string::npos)
        last_line.replace(at, 5, dir);
    EXPECT_EQ(last_line, log.substr(log.size() - last_line.size()));
}

// The table keeps what earlier scans found, so every case wants a process of its own.
TEST(LogFile, PicksASlot)
{
    for (const RingCase &c : k_ring_cases) {
        pid_t child = fork();
        if (child == 0) {
            SCOPED_TRACE(c.what);
            ring_case_check(c);
            _exit(testing::Test::HasFailure());
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status) << c.what;
    }
}

TEST(LogFile, ScanSaysWhatItFinds)
{
    std::string dir = make_dir();
    put_file(dir + "notes.txt", 5, 50);
    ASSERT_EQ(0, mkdir((dir + "1.log").c_str(), 0700));
    ASSERT_EQ(0, symlink("nowhere", (dir + "2.log").c_str()));
    log_capture_begin();
    EXPECT_EQ(0, log_dir_scan(dir.c_str()));
    EXPECT_EQ("[INF] fileName: notes.txt\n[INF] No match for REGEX: \"^([0-9]*)\\.log\", msg: notes.txt\n"
              "[INF] 'notes.txt' is not a valid log file\n",
              log_capture_end());
    put_file(dir + "4.log", 5, 50);
    unlink((dir + "notes.txt").c_str());
    log_capture_begin();
    EXPECT_EQ(1, log_dir_scan(dir.c_str()));
    EXPECT_EQ("[INF] fileName: 4.log\n[INF] pmatch[1].rm_eo: 1, pmatch[1].rm_so: 0, matched_len: 1, matched value: 4\n"
              "[INF] Log file: '" + dir + "4.log', size: 5, last_modify: 50.\n",
              log_capture_end());
    log_capture_begin();
    EXPECT_EQ(-1, log_dir_scan("/nowhere/at/all/"));
    EXPECT_EQ("[ERR] fail to open dir\n", log_capture_end());
}

// log_init with an init cfg that names dir, 2 files of 64 KiB.
static void configure(const std::string &base, const std::string &log_dir)
{
    std::ofstream(base + "init") << "{\"log_path\":\"" << log_dir << "\",\"max_files\":2,\"max_size\":64}";
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    plugin_info_edit_text(&edit, edit.next.init_cfg_path, (base + "init").c_str());
    plugin_info_edit_commit(&edit);
    g_log_std = 0;
    g_log_level = 6;
}

TEST(LogFile, FillsAndSplits)
{
    std::string base = make_dir(), logs = base + "logs/";
    configure(base, logs);
    testing::internal::CaptureStdout();
    ASSERT_EQ(1, log_init());
    std::string console = testing::internal::GetCapturedStdout();
    // Between the mode and the open the console is the only place left.
    EXPECT_EQ(1, count_of(console, "Creating log directory: '" + logs + "' ..."));
    EXPECT_EQ(0, count_of(console, "open successfully"));
    std::string line(900, 'x');
    for (int i = 0; i < 68; i++)
        log_info("%s", line.c_str());
    log_split_check();
    EXPECT_NE(0, access((logs + "1.log").c_str(), F_OK)); // some hundred bytes are missing
    for (int i = 0; i < 3; i++)
        log_info("%s", line.c_str());
    testing::internal::CaptureStdout();
    log_split_check();
    EXPECT_EQ(1, count_of(testing::internal::GetCapturedStdout(), "overwrite log file: '' now."));
    log_close();
    log_close(); // silent without a file
    std::string first = content_of(logs + "0.log"), second = content_of(logs + "1.log");
    EXPECT_EQ(71, count_of(first, line));
    EXPECT_EQ(1, count_of(first, "reaches the limit of a single log file: 65536 bytes, split log file now..."));
    EXPECT_LT(first.find("max_log_file_size: 65536"), first.find("Close log file: " + logs + "0.log"));
    EXPECT_EQ(1, count_of(second, "Logfile: '" + logs + "1.log' open successfully, mode: 'w+', buffer size: 1024."));
    EXPECT_EQ(1, count_of(second, "Close log file: " + logs + "1.log"));
}

TEST(LogFile, FailuresAndSyslog)
{
    std::string base = make_dir();
    configure(base, base + "no/such/parent/");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, log_init());
    EXPECT_EQ(1, count_of(testing::internal::GetCapturedStdout(),
                          "[ERR] Create log dir failed! ret: -1(No such file or directory)!"));
    EXPECT_EQ(LOG_MODE_FILE, log_mode_get()); // so the console it is

    ASSERT_EQ(0, mkdir((base + "logs").c_str(), 0700));
    ASSERT_EQ(0, mkdir((base + "logs/0.log").c_str(), 0700)); // whichever slot it is
    ASSERT_EQ(0, mkdir((base + "logs/1.log").c_str(), 0700));
    configure(base, base + "logs/");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, log_init());
    std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(1, count_of(console, ".log' open failed, mode: '"));
    EXPECT_EQ(1, count_of(console, "[INF] Close log file: ")); // the slot was current already
    log_split_check(); // nothing is current any more

    configure(base, "");
    EXPECT_EQ(1, log_init());
    EXPECT_EQ(LOG_MODE_SYSLOG, log_mode_get());
    configure(base, base + "unused/");
    g_log_std = 1;
    EXPECT_EQ(1, log_init());
    EXPECT_NE(0, access((base + "unused").c_str(), F_OK));
}
