#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

static std::string content_of(const std::string &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Expects the slot that is picked after a scan of files (name, size, time), out of 3 slots of 100 bytes.
struct RingFile {
    const char *name;
    size_t size;
    time_t modified;
    bool is_link = false; // to a file that is none of the ring
};
struct RingCase {
    const char *what;
    RingFile files[5];
    int valid, slot, truncate;
    const char *name; // of the file that is overwritten, null: the file is used further
};
static const RingCase k_ring_cases[] = {
    {"empty", {}, 0, 0, 1, ""},
    {"room in the first", {{"0.log", 99, 50}}, 1, 0, 0, nullptr},
    {"full at the limit, an unused slot is next", {{"0.log", 100, 50}}, 1, 1, 1, ""},
    {"room wins over an unused slot", {{"0.log", 100, 50}, {"2.log", 0, 60}}, 2, 2, 0, nullptr},
    {"all full, the oldest", {{"0.log", 100, 50}, {"1.log", 100, 40}, {"2.log", 100, 60}}, 3, 1, 1, "1.log"},
    {"links to files count as files", {{"0.log", 100, 60, true}, {"1.log", 99, 50, true}}, 2, 1, 0, nullptr},
    {"all as old, the lowest", {{"0.log", 100, 50}, {"1.log", 100, 50}, {"2.log", 100, 50}}, 3, 0, 1, "0.log"},
    {"beyond the ring, no number at all, a tail",
     {{"3.log", 1, 50}, {".log", 100, 50}, {"1.log.old", 100, 50}, {"99999999999999.log", 1, 50}, {"10.log", 1, 50}},
     3,
     2,
     1,
     ""},
};

static void ring_case_check(const RingCase &c)
{
    const TempDir temp;
    const std::string dir = temp.path + "/";
    for (const RingFile &file : c.files) {
        if (!file.name)
            continue;
        std::string target = dir + (file.is_link ? "to_" : "") + file.name;
        put_file(target, file.size, file.modified);
        EXPECT_TRUE(!file.is_link || symlink(target.c_str(), (dir + file.name).c_str()) == 0);
    }
    LogLines log(6);
    EXPECT_EQ(c.valid, log_dir_scan(dir.c_str()));
    int truncate = -1;
    (void)log.take();
    EXPECT_EQ(c.slot, log_pick_slot(3, 100, &truncate));
    EXPECT_EQ(c.truncate, truncate);
    std::string wanted = c.name ? "overwrite log file: '" + (*c.name ? dir + c.name : "") + "' now.\n"
                                : "less than limit: 100, reuse it.\n";
    EXPECT_EQ(log.text().size() - wanted.size(), log.text().find(wanted));
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
    std::string first = content_of(logs + "0.log"), second = content_of(logs + "1.log");
    EXPECT_EQ(71, count_of(first, line));
    EXPECT_EQ(1, count_of(first, "reaches the limit of a single log file: 65536 bytes, split log file now..."));
    EXPECT_LT(first.find("max_log_file_size: 65536"), first.find("Close log file: " + logs + "0.log"));
    EXPECT_EQ(1, count_of(second, "Logfile: '" + logs + "1.log' open successfully, mode: 'w+', buffer size: 1024."));
    EXPECT_EQ(1, count_of(second, "Close log file: " + logs + "1.log"));
}
