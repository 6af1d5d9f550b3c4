#include "remote/remote_audit.h"

#include <cjson/cJSON.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "device_files.h"
#include "support.h"

TEST(RemoteAudit, LinesAreWhole)
{
    char line[AUDIT_LINE_SIZE];
    const AuditTunnel web = {"web", "nm.example", "10.1.2.3", "8443", " ~\"\\\n\x7f\xc3\xa9"};
    const int64_t after_2038_s = 4102444800;
    AuditSession session = {web, 1700000000, after_2038_s, 5000000000, 18446744073709551615u, true, 3, "idle"};
    size_t len = remote_audit_session_format(&session, line);
    EXPECT_STREQ("{\"event\":\"session\",\"start\":\"2023-11-14T22:13:20Z\",\"end\":\"2100-01-01T00:00:00Z\","
                 "\"kind\":\"web\",\"host\":\"nm.example\",\"tunnel_end\":\"10.1.2.3:8443\","
                 "\"session\":\" ~\\\"\\\\\\u000a\\u007f\\u00c3\\u00a9\",\"from_nm\":5000000000,"
                 "\"to_nm\":18446744073709551615,\"ids\":3,\"ended_by\":\"idle\"}\n",
                 line);
    EXPECT_EQ(strlen(line), len);

    const std::string longest(511, '\x01');
    const AuditTunnel telnet = {"telnet", longest.c_str(), "255.255.255.255", "65535", longest.c_str()};
    AuditRefusal refusal = {telnet, 0, "the service is switched off"};
    len = remote_audit_refusal_format(&refusal, line);
    EXPECT_EQ(strlen(line), len);
    cJSON *root = cJSON_Parse(line);
    ASSERT_TRUE(root);
    EXPECT_EQ(longest, cJSON_GetStringValue(cJSON_GetObjectItem(root, "session")));
    EXPECT_STREQ("the service is switched off", cJSON_GetStringValue(cJSON_GetObjectItem(root, "reason")));
    EXPECT_STREQ("1970-01-01T00:00:00Z", cJSON_GetStringValue(cJSON_GetObjectItem(root, "time")));
    cJSON_Delete(root);
    refusal.time_s = INT64_MAX; // no year has it
    (void)remote_audit_refusal_format(&refusal, line);
    EXPECT_EQ(line, strstr(line, "{\"event\":\"refusal\",\"time\":\"\","));
}

static void append(const std::string &path, const char *line)
{
    remote_audit_append(path.c_str(), line, strlen(line));
}

// No directory, no room, a FIFO that nobody reads: one warning each time, and a line when it is over.
TEST(RemoteAudit, FileThatCannotBeWrittenIsToldOnce)
{
    LogLines log;
    const TempDir dir;
    const std::string good = dir.path + "/good", fifo = dir.path + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    for (const std::string &bad : {dir.path + "/sub/audit", std::string("/dev/full"), fifo}) {
        SCOPED_TRACE(bad);
        append(bad, "lost\n");
        append(bad, "lost\n");
        EXPECT_EQ(1, count_of(log.text(), "[WRN] Audit file: " + bad + " cannot be written: "));
        append(good, "line\n");
        EXPECT_EQ(1, count_of(log.take(), "can be written again, lines lost: 2"));
    }
    EXPECT_EQ("line\nline\nline\n", file_text(good));
    struct stat info;
    EXPECT_EQ(0, stat(good.c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 07777);
    append("", "nowhere\n");
    EXPECT_EQ("", log.take());
}

TEST(RemoteAudit, LineBehindATornOneStandsAlone)
{
    LogLines log;
    const TempDir dir;
    const std::string path = dir.path + "/audit";
    append(path, "first\n");
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const struct rlimit room = {8, before.rlim_max}; // as a full disk does
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &room));
    append(path, "second\n");
    append(path, "third\n");
    setrlimit(RLIMIT_FSIZE, &before);
    append(path, "fourth\n");
    append(path, "fifth\n");
    EXPECT_EQ("first\nse\nfourth\nfifth\n", file_text(path));
    EXPECT_EQ(1, log.count("cannot be written: "));
}
