#include "status/service_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>

#include "log_capture.h"
#include "nm_peer.h"
#include "runtime/stop.h"
#include "runtime/stop_internal.h"
#include "status/service_status_internal.h"
#include "transport/conn_registry.h"

typedef std::vector<std::string> Texts;

static const std::string k_sep = "\r\n\r\n";

// Makes a file with the content the service status file; returns its path.
static std::string service_file(const std::string &content)
{
    char path[] = "/tmp/service_status_XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(write(fd, content.data(), content.size()), (ssize_t)content.size());
    close(fd);
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.service_path, path);
    plugin_info_edit_commit(&edit);
    return path;
}

static off_t file_size(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return st.st_size;
}

static void keep_record(const char *record, void *arg)
{
    ((Texts *)arg)->push_back(record);
}

TEST(ServiceStatus, RecordsAreCutAtTheirSeparators)
{
    const std::string full(4095, 'f'), over(4096, 'o');
    const struct {
        const char *name;
        std::string file;
        Texts records;
        int invalid; // 1: the log tells of a record that is too long
    } k_cases[] = {
        {"empty file", "", {}, 0},
        {"no separator", "one", {"one"}, 0},
        {"three, the last one open", "a" + k_sep + "b" + k_sep + "c", {"a", "b", "c"}, 0},
        {"closed by a separator", "a" + k_sep, {"a"}, 0},
        {"separators in a row", k_sep + k_sep + "a" + k_sep + k_sep + "b", {"a", "b"}, 0},
        {"half a separator is text", "a\r\nb\r\n\r" + k_sep + "c", {"a\r\nb\r\n\r", "c"}, 0},
        {"longest", full + k_sep + full, {full, full}, 0},
        {"too long with its separator", over + k_sep + "b", {"b"}, 1},
        {"too long as the rest", "a" + k_sep + over, {"a"}, 0},
        {"too long for the buffer", "a" + k_sep + std::string(8191, 'x') + k_sep + "b", {"a"}, 0},
        {"just fits the buffer", std::string(8187, 'x') + k_sep + "b", {"b"}, 1},
        {"NUL inside", std::string("a\0z", 3) + k_sep + "b", {"a", "b"}, 0},
        {"NUL in front", std::string("\0z", 2) + k_sep + "b", {"b"}, 0},
    };
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.name);
        std::string path = service_file(c.file);
        int fd = open(path.c_str(), O_RDONLY);
        Texts records;
        log_capture_begin();
        service_records_read(fd, keep_record, &records);
        EXPECT_EQ(log_capture_end(), c.invalid ? "[ERR] Invalid param!\n" : "");
        EXPECT_EQ(records, c.records);
        close(fd);
        unlink(path.c_str());
    }
}

TEST(ServiceStatus, RecordsSurviveEveryCutBetweenTwoReads)
{
    const std::string file = "aa" + k_sep + "b\r" + k_sep + k_sep + "cc";
    for (size_t cut = 1; cut < file.size(); cut++) {
        SCOPED_TRACE(cut);
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0); // one packet is one read
        ASSERT_EQ(send(ends[0], file.data(), cut, 0), (ssize_t)cut);
        ASSERT_EQ(send(ends[0], file.data() + cut, file.size() - cut, 0), (ssize_t)(file.size() - cut));
        close(ends[0]);
        Texts records;
        service_records_read(ends[1], keep_record, &records);
        EXPECT_EQ(records, (Texts{"aa", "b\r", "cc"}));
        close(ends[1]);
    }
}

TEST(ServiceStatus, ReportPostsEveryRecordOnceAndInOrder)
{
    NmPeer nm;
    nm_peer_start(&nm, "1.3", "SN1");
    std::string file;
    Texts expected;
    for (int i = 0; i < 1000; i++) {
        std::string record =
            "{\"id\":" + std::to_string(i) + ",\"p\":\"" + std::string((size_t)(i * 37 % 700), 'p') + "\"}";
        expected.push_back("{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"SN1\",\n\t\"services\":" + record + "\n}");
        file += record + k_sep;
    }
    std::string path = service_file(file);
    service_status_report(0);
    EXPECT_EQ(file_size(path), (off_t)file.size());
    std::vector<NmPost> posts = nm_peer_posts(&nm);
    ASSERT_EQ(posts.size(), expected.size());
    for (size_t i = 0; i < posts.size(); i++) {
        ASSERT_EQ(posts[i].path, "/dev-api/SN1/working/services");
        ASSERT_EQ(posts[i].body, expected[i]);
    }
    conn_remove_all();
    nm_peer_end(&nm);
    unlink(path.c_str());
}

// A stop in the middle of the posts: what was not sent is still in the file.
TEST(ServiceStatus, AStoppedRunKeepsTheFile)
{
    ASSERT_EQ(stop_init([](int) { _exit(99); }), 0);
    NmPeer nm;
    nm_peer_start(&nm, "1.3", "SN1");
    std::string file;
    for (int i = 0; i < 500; i++)
        file += "{}" + k_sep;
    std::string path = service_file(file);
    std::thread run(service_status_report, 1);
    nm_peer_wait(&nm, 3);
    stop_request(15);
    run.join();
    EXPECT_LT(nm_peer_posts(&nm).size(), 100u);
    EXPECT_EQ(file_size(path), (off_t)file.size());
    alarm(0); // the hard deadline
    stop_reset_for_test();
    conn_remove_all();
    nm_peer_end(&nm);
    unlink(path.c_str());
}

// Holds the whole file locked in another process until the pipe's other end is closed.
static pid_t lock_elsewhere(const std::string &path, int until_fd)
{
    int ready[2];
    char byte = 0;
    EXPECT_EQ(pipe(ready), 0);
    pid_t child = fork();
    if (child == 0) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        int fd = open(path.c_str(), O_RDWR);
        if (fcntl(fd, F_SETLK, &lock) == 0 && write(ready[1], "x", 1) == 1)
            (void)!read(until_fd, &byte, 1);
        _exit(0);
    }
    close(ready[1]);
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    return child;
}

TEST(ServiceStatus, WithoutTheLockTheFileStaysAsItWas)
{
    std::string path = service_file("a" + k_sep);
    int until[2];
    ASSERT_EQ(pipe2(until, O_CLOEXEC), 0);
    pid_t child = lock_elsewhere(path, until[0]);
    log_capture_begin();
    service_status_report(1);
    std::string log = log_capture_end();
    EXPECT_EQ(log, "[WRN] Set file lock failed: Resource temporarily unavailable\n"
                   "[WRN] Set file lock failed again: Resource temporarily unavailable\n");
    EXPECT_EQ(file_size(path), 5);
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    unlink(path.c_str());

    log_capture_begin();
    service_status_report(1); // the file is missing now: told by the lock
    log = log_capture_end();
    EXPECT_EQ(log, "[WRN] Set file lock failed: Bad file descriptor\n"
                   "[WRN] Set file lock failed again: Bad file descriptor\n");
}

TEST(ServiceStatus, PollStartsAndStopsTheTimerAsTheModeWants)
{
    const struct {
        const char *name;
        void (*change)(void);
        int timer_running;
    } k_steps[] = {
        {"not enabled", [] { service_status_set_timing(SERVICE_TIMING, 50); }, 0},
        {"timing", service_status_start, 1},
        {"with the timer", [] { service_status_set_timing(SERVICE_IMMEDIATE_TIMING, 50); }, 1},
        {"by size", [] { service_status_set_delay(SERVICE_DELAY, 8); }, 0},
        {"a period that starts no timer", [] { service_status_set_timing(SERVICE_TIMING, -5); }, 1},
        {"immediate", service_status_set_immediate, 0},
        {"again", [] { service_status_set_timing(SERVICE_TIMING, 70); }, 1},
        {"stopped", service_status_stop, 0},
    };
    std::string path = service_file("");
    service_status_reset();
    for (const auto &step : k_steps) {
        SCOPED_TRACE(step.name);
        step.change();
        service_status_poll();
        ServiceSettings now = service_settings_get();
        EXPECT_EQ(now.timer_running, step.timer_running);
        EXPECT_EQ(now.timer.timerid != 0, step.timer_running && now.timer.seconds > 0);
        EXPECT_EQ(service_state_get(), SERVICE_IDLE);
    }
    service_status_set_timing(SERVICE_TIMING, 70);
    service_status_start();
    service_status_poll();
    service_status_set_timing(SERVICE_TIMING, 71);
    EXPECT_EQ(service_settings_get().timer_running, 0);
    EXPECT_EQ(service_settings_get().timer.timerid, 0u);
    unlink(path.c_str());
}
