#include "status/service_status.h"

#include <fstream>

#include "peers.h"
#include "runtime/stop_internal.h"
#include "status/service_status_internal.h"

static const std::string k_sep = "\r\n\r\n";

// Makes a file with the content the service status file; returns its path.
static std::string service_file(const std::string &content)
{
    static const TempDir dir;
    const std::string path = dir.path + "/service";
    std::ofstream(path) << content;
    info_edit([&](PluginInfo *next) { (void)text_set(next->service_path, path.c_str()); });
    return path;
}

static void keep_record(const char *record, void *arg)
{
    *(std::string *)arg += (((std::string *)arg)->empty() ? "" : ", ") + std::string(record);
}

TEST(ServiceStatus, RecordsAreCutAtTheirSeparators)
{
    const std::string full(4095, 'f'), over(4096, 'o');
    std::vector<Texts> rows = examples("service-records");
    const std::vector<Texts> invalid = {{over + k_sep + "b", "b"}, {std::string(8187, 'x') + k_sep + "b", "b"}};
    rows.insert(rows.end(), invalid.begin(), invalid.end());
    rows.push_back({full + k_sep + full, full + ", " + full});
    rows.push_back({"a" + k_sep + over, "a"});
    rows.push_back({"a" + k_sep + std::string(8191, 'x') + k_sep + "b", "a"}); // does not fit the buffer
    for (const Texts &row : rows) {
        SCOPED_TRACE(row[0].substr(0, 60));
        int fd = open(service_file(row[0]).c_str(), O_RDONLY);
        std::string records;
        LogLines log;
        service_records_read(fd, keep_record, &records);
        EXPECT_EQ(std::count(invalid.begin(), invalid.end(), row) ? "[ERR] Invalid param!\n" : "", log.text());
        EXPECT_EQ(row[1], records);
        close(fd);
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
        std::string records;
        service_records_read(ends[1], keep_record, &records);
        EXPECT_EQ("aa, b\r, cc", records);
        close(ends[1]);
    }
}

// A whole run posts every record once and in order. A stop in the middle of the posts: what was not sent is still in
// the file.
TEST(ServiceStatus, ReportPostsEveryRecordOnceAndInOrder)
{
    ASSERT_EQ(stop_init([](int) { _exit(99); }), 0);
    const int count = 1000;
    std::string file;
    Texts expected;
    for (int i = 0; i < count; i++) {
        std::string record =
            "{\"id\":" + std::to_string(i) + ",\"p\":\"" + std::string((size_t)(i * 37 % 700), 'p') + "\"}";
        expected.push_back("{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"A1\",\n\t\"services\":" + record + "\n}");
        file += record + k_sep;
    }
    std::string path = service_file(file);
    NmPeer nm;
    service_status_report(0);
    EXPECT_EQ(std::filesystem::file_size(path), file.size());
    EXPECT_EQ(nm.now(&NmPeer::paths), Texts(count, "/dev-api/A1/working/services"));
    EXPECT_TRUE(nm.now(&NmPeer::bodies) == expected);

    std::thread run(service_status_report, 1);
    while (nm.now(&NmPeer::paths).size() < count + 3u)
        usleep(100);
    stop_request(15);
    run.join();
    EXPECT_LT(nm.now(&NmPeer::paths).size(), count + 200u);
    EXPECT_EQ(std::filesystem::file_size(path), file.size());
    alarm(0); // the hard deadline
    stop_reset_for_test();
}

TEST(ServiceStatus, WithoutTheLockTheFileStaysAsItWas)
{
    std::string path = service_file("a" + k_sep);
    int fd = open(path.c_str(), O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0); // stands against the process's own locks as well
    LogLines log;
    service_status_report(1);
    EXPECT_EQ(log.take(), "[WRN] Set file lock failed: Resource temporarily unavailable\n"
                          "[WRN] Set file lock failed again: Resource temporarily unavailable\n");
    EXPECT_EQ(std::filesystem::file_size(path), 5u);
    std::thread device([fd] { usleep(20000), close(fd); }); // lets go before the second attempt
    service_status_report(1);
    device.join();
    EXPECT_EQ(std::filesystem::file_size(path), 0u);
    (void)log.take();
    unlink(path.c_str());
    service_status_report(1); // the file is missing now: told by the lock
    EXPECT_EQ(log.take(), "[WRN] Set file lock failed: Bad file descriptor\n"
                          "[WRN] Set file lock failed again: Bad file descriptor\n");
}

// What one poll makes of the settings: the timer starts or stops, a file of so many bytes is reported and emptied or
// left. Then the device asks for a report.
TEST(ServiceStatus, PollFollowsTheMode)
{
    const struct {
        const char *name;
        void (*change)(void);
        int starts, stops; // of the timer
        bool heard;        // the device
        unsigned size, left;
    } k_steps[] = {
        {"not enabled", [] { service_status_set_timing(SERVICE_TIMING, 50); }, 0, 0, false, 8192, 8192},
        {"timing", service_status_start, 1, 0, false, 8192, 8192},
        {"with the timer", [] { service_status_set_timing(SERVICE_IMMEDIATE_TIMING, 50); }, 0, 0, true, 8192, 8192},
        {"another period", [] { service_status_set_timing(SERVICE_TIMING, 51); }, 1, 1, false, 8192, 8192},
        {"not full yet", [] { service_status_set_delay(SERVICE_DELAY, 8); }, 0, 1, false, 8191, 8191},
        {"full", [] {}, 0, 0, false, 8192, 0},
        {"huge limit", [] { service_status_set_delay(SERVICE_DELAY, 0x7fffffff); }, 0, 0, false, 8192, 8192},
        {"with the size", [] { service_status_set_delay(SERVICE_IMMEDIATE_DELAY, 9); }, 0, 0, true, 8192, 8192},
        {"asked for", [] {}, 0, 0, true, 8192, 0},
        {"immediate", service_status_set_immediate, 0, 0, true, 8192, 8192},
        {"timing again", [] { service_status_set_timing(SERVICE_TIMING, 70); }, 1, 0, false, 8192, 8192},
        {"stopped", service_status_stop, 0, 1, false, 8192, 8192},
    };
    std::string path = service_file("");
    service_status_reset();
    for (const auto &step : k_steps) {
        SCOPED_TRACE(step.name);
        LogLines log;
        step.change();
        EXPECT_EQ(truncate(path.c_str(), step.size), 0);
        service_status_poll();
        EXPECT_EQ(log.count("Start timer"), step.starts);
        EXPECT_EQ(log.count("Stop timer"), step.stops);
        EXPECT_EQ(std::filesystem::file_size(path), step.left);
        EXPECT_EQ(service_state_get(), SERVICE_IDLE);
        service_status_device_request();
        EXPECT_EQ(service_state_get(), step.heard ? SERVICE_REQUESTED : SERVICE_IDLE);
    }
}

// A stop may take seconds (a name look-up): the thread neither reads the file nor logs meanwhile.
TEST(ServiceStatus, NothingBeginsDuringAStop)
{
    unlink(service_file("").c_str());
    service_status_reset();
    service_status_set_delay(SERVICE_DELAY, 8);
    service_status_start();
    start_process_once();
    stop_request(15);
    LogLines log;
    for (int turn = 0; turn < 3; turn++)
        service_status_turn();
    EXPECT_EQ("", log.text());
    alarm(0); // the hard deadline
    stop_reset_for_test();
}
