#include "runtime/log_file.h"
#include "runtime/log_file_internal.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "runtime/log.h"
#include "runtime/plugin_info.h"
#include "runtime/regex_extract.h"
#include "runtime/text.h"

constexpr int LOG_FILE_SLOTS = 10; // the largest max_log_file_number that the init cfg allows
constexpr int SCAN_MAX = 10;       // log files that one scan records, however large the ring is
constexpr size_t STREAM_BUFFER_SIZE = 1024;
constexpr size_t LOG_PATH_SIZE = PATH_TEXT_SIZE + 8; // the longest directory, and "<slot>.log"

// One slot of the ring. A scan does not clear what earlier scans recorded, even of another directory.
struct LogFileEntry {
    uint8_t used; // 1: found by a scan, or opened
    char path[LOG_PATH_SIZE];
    int64_t last_modify; // seconds, from the last scan that saw it
    int32_t size;        // bytes, clamped, from the last stat
};

// Main thread only.
static LogFileEntry s_entries[LOG_FILE_SLOTS];
static LogFileEntry *s_current;                  // null: no file
static char s_stream_buffer[STREAM_BUFFER_SIZE]; // outlives every stream
static int (*s_settings_read)(void);

struct LogSettings {
    char directory[PATH_TEXT_SIZE];
    int32_t max_number;
    int32_t max_size;
};

static LogSettings settings_get(void)
{
    PluginInfo info;
    plugin_info_get(&info);
    LogSettings settings = {};
    (void)text_set(settings.directory, info.plugin_log_path);
    settings.max_number = info.max_log_file_number;
    settings.max_size = info.max_log_file_size;
    return settings;
}

// Slot of a log file's name; -1 for any other name (logged) and for numbers beyond the ring. A name without digits is
// slot 0, and anything may follow ".log".
static int slot_of(const char *name)
{
    char number[256];
    if (regex_extract(name, "^([0-9]*)\\.log", number, sizeof(number)) != 0) {
        log_info("'%s' is not a valid log file", name);
        return -1;
    }
    unsigned long long slot = strtoull(number, nullptr, 10); // saturates
    return slot < (unsigned long long)LOG_FILE_SLOTS ? (int)slot : -1;
}

// Records a directory entry that is a log file. Returns the number recorded, 0 or 1.
static int file_record(const char *directory, const char *name)
{
    char path[2 * PATH_TEXT_SIZE];
    (void)text_fmt(path, "%s%s", directory, name);
    struct stat info = {};
    int result = stat(path, &info); // follows links, as fopen will
    if (result == 0 && !S_ISREG(info.st_mode))
        return 0;
    log_info("fileName: %s", name);
    if (result != 0) {
        log_error("Fail to read log file property! File path: %s!", path);
        return 0;
    }
    int slot = slot_of(name);
    if (slot < 0)
        return 0;
    LogFileEntry *entry = &s_entries[slot];
    entry->used = 1;
    entry->size = saturate_i32(info.st_size);
    entry->last_modify = info.st_mtime;
    (void)text_set(entry->path, path);
    log_info("Log file: '%s', size: %d, last_modify: %ld.", entry->path, entry->size, (long)entry->last_modify);
    return 1;
}

int log_dir_scan(const char *directory)
{
    DIR *dir = opendir(directory);
    if (!dir) {
        log_error("fail to open dir");
        return -1;
    }
    int count = 0;
    const struct dirent *entry;
    while (count < SCAN_MAX && (entry = readdir(dir)) != nullptr)
        count += file_record(directory, entry->d_name);
    closedir(dir);
    return count;
}

// An unused slot wins only because its time, 0, is the oldest.
int log_pick_slot(int32_t max_number, int32_t max_size, int *truncate)
{
    int oldest = 0;
    for (int i = 0; i < max_number && i < LOG_FILE_SLOTS; i++) {
        LogFileEntry *entry = &s_entries[i];
        if (entry->used) {
            log_info("Log file[%d]: '%s', size: %d, used: %d, last_modify: %ld.", i, entry->path, entry->size,
                     entry->used, (long)entry->last_modify);
            if (entry->size < max_size) {
                log_info("Log file: '%s' has size: %d, less than limit: %d, reuse it.", entry->path, entry->size,
                         max_size);
                s_current = entry;
                *truncate = 0;
                return i;
            }
        }
        if (entry->last_modify < s_entries[oldest].last_modify)
            oldest = i;
    }
    s_current = &s_entries[oldest];
    log_info("Reach the limit of log file number: %d, overwrite log file: '%s' now.", max_number, s_current->path);
    *truncate = 1;
    return oldest;
}

// Between log_swap_begin and log_swap_end. The line still goes to the file that it names.
static void current_close(void)
{
    if (s_current) {
        log_info("Close log file: %s", s_current->path);
        s_current = nullptr;
    }
    FILE *stream = log_stream_get();
    if (stream) {
        log_stream_set(nullptr);
        fclose(stream);
    }
}

static int directory_make(const char *directory)
{
    log_info("Creating log directory: '%s' ...", directory);
    DIR *dir = opendir(directory);
    if (dir) {
        closedir(dir);
        log_info("Log dir: %s exists.", directory);
        return 0;
    }
    int result = mkdir(directory, 0777);
    if (result != 0)
        log_error("Create log dir failed! ret: %d(%s)!", result, strerror(errno));
    return result;
}

static int slot_open(const LogSettings *settings)
{
    int truncate = 0;
    int slot = log_pick_slot(settings->max_number, settings->max_size, &truncate);
    const char *mode = truncate ? "w+" : "a+";
    char path[LOG_PATH_SIZE];
    (void)text_fmt(path, "%s%d.log", settings->directory, slot);
    FILE *stream = fopen(path, mode);
    if (!stream) {
        log_error("Logfile: '%s' open failed, mode: '%s'!", path, mode);
        return -1;
    }
    setvbuf(stream, s_stream_buffer, _IOFBF, sizeof(s_stream_buffer));
    log_stream_set(stream);
    log_info("Logfile: '%s' open successfully, mode: '%s', buffer size: %d.", path, mode, (int)STREAM_BUFFER_SIZE);
    (void)text_set(s_current->path, path);
    s_current->used = 1;
    return 0;
}

// Between log_swap_begin and log_swap_end.
static int next_open(const LogSettings *settings)
{
    if (directory_make(settings->directory) != 0)
        return -1;
    int count = log_dir_scan(settings->directory);
    if (count < 0) {
        log_error("Reading log dir: '%s' failed!", settings->directory);
        return -1;
    }
    log_info("Log dir: '%s' has %d files!", settings->directory, count);
    log_info("max_log_file_number: %d, max_log_file_size: %d.", settings->max_number, settings->max_size);
    return slot_open(settings);
}

static int stream_swap(const LogSettings *settings)
{
    log_mode_set(LOG_MODE_FILE);
    if (log_swap_begin(false) != 0)
        return 0;
    if (log_stream_get())
        current_close();
    int result = next_open(settings);
    if (result != 0)
        current_close();
    log_swap_end();
    return result == 0;
}

void log_settings_reader_set(int (*read)(void))
{
    s_settings_read = read;
}

int log_init(void)
{
    if (g_log_std == 1)
        return 1;
    bool is_read = s_settings_read && s_settings_read() == 0;
    LogSettings settings = settings_get();
    if (is_read)
        log_info("Log dir: %s.", settings.directory);
    if (!is_read || settings.directory[0] == '\0') {
        log_mode_set(LOG_MODE_SYSLOG);
        log_info("Log file mode: use syslog");
        return 1;
    }
    return stream_swap(&settings);
}

void log_close(void)
{
    if (!log_stream_get() || log_swap_begin(true) != 0)
        return;
    current_close();
    log_swap_end();
}

void log_split_check(void)
{
    if (log_mode_get() != LOG_MODE_FILE || !s_current || s_current->path[0] == '\0')
        return;
    struct stat info = {};
    if (stat(s_current->path, &info) == 0)
        s_current->size = saturate_i32(info.st_size);
    else
        log_error("Fail to read log file property! File path: %s!", s_current->path);
    int32_t max_size = plugin_info_max_log_file_size(); // a reload of the init cfg may change it at any time
    if (s_current->size < max_size)
        return;
    log_info("Log file: '%s' has size: %d, reaches the limit of a single log file: %d bytes, split log file now...",
             s_current->path, s_current->size, max_size);
    if (!log_init())
        log_error("Splitting log file failed!");
}
