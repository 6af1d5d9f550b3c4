#include "remote/remote_audit.h"

#include <cjson/cJSON.h>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

static std::string file_now(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

static std::string new_dir()
{
    char path[] = "/tmp/remote_audit_XXXXXX";
    return mkdtemp(path);
}

TEST(RemoteAudit, LinesAreWhole)
{
    char line[AUDIT_LINE_SIZE];
    AuditSession session = {{"web", "nm.example", "10.1.2.3", "8443", "a\"\\\n\x7f\xc3\xa9"},
                            1700000000,
                            4102444800, // after 2038
                            5000000000,
                            18446744073709551615u,
                            true,
                            3,
                            "idle"};
    size_t len = remote_audit_session_format(&session, line);
    EXPECT_STREQ("{\"event\":\"session\",\"start\":\"2023-11-14T22:13:20Z\",\"end\":\"2100-01-01T00:00:00Z\","
                 "\"kind\":\"web\",\"host\":\"nm.example\",\"tunnel_end\":\"10.1.2.3:8443\","
                 "\"session\":\"a\\\"\\\\\\u000a\\u007f\\u00c3\\u00a9\",\"from_nm\":5000000000,"
                 "\"to_nm\":18446744073709551615,\"ids\":3,\"ended_by\":\"idle\"}\n",
                 line);
    EXPECT_EQ(strlen(line), len);

    const std::string longest(511, '\x01');
    AuditRefusal refusal = {
        {"telnet", longest.c_str(), "255.255.255.255", "65535", longest.c_str()}, 0, "the service is switched off"};
    len = remote_audit_refusal_format(&refusal, line);
    EXPECT_EQ(strlen(line), len);
    cJSON *root = cJSON_Parse(line);
    ASSERT_TRUE(root);
    EXPECT_EQ(longest, cJSON_GetStringValue(cJSON_GetObjectItem(root, "session")));
    EXPECT_STREQ("the service is switched off", cJSON_GetStringValue(cJSON_GetObjectItem(root, "reason")));
    EXPECT_STREQ("1970-01-01T00:00:00Z", cJSON_GetStringValue(cJSON_GetObjectItem(root, "time")));
    cJSON_Delete(root);
}

static void append(const std::string &path, const char *line)
{
    remote_audit_append(path.c_str(), line, strlen(line));
}

// No directory, no room, a FIFO that nobody reads: one warning each time, and a line when it is over.
TEST(RemoteAudit, FileThatCannotBeWrittenIsToldOnce)
{
    LogLines log;
    const std::string dir = new_dir(), path = dir + "/sub/audit", fifo = dir + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    for (const std::string &bad : {path, std::string("/dev/full"), fifo}) {
        SCOPED_TRACE(bad);
        append(bad, "lost\n");
        append(bad, "lost\n");
        EXPECT_EQ(1, count_of(log.text(), "[WRN] Audit file: " + bad + " cannot be written: "));
        append(dir + "/good", "line\n");
        EXPECT_EQ(1, count_of(log.take(), "can be written again, lines lost: 2"));
    }
    EXPECT_EQ("line\nline\nline\n", file_now(dir + "/good"));
    struct stat info;
    EXPECT_EQ(0, stat((dir + "/good").c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 07777);
    append("", "nowhere\n");
    EXPECT_EQ("", log.take());
}

TEST(RemoteAudit, LineBehindATornOneStandsAlone)
{
    LogLines log;
    const std::string path = new_dir() + "/audit";
    append(path, "first\n");
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit room, before;
    getrlimit(RLIMIT_FSIZE, &before);
    room = before;
    room.rlim_cur = 8; // as a full disk does
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &room));
    append(path, "second\n");
    append(path, "third\n");
    setrlimit(RLIMIT_FSIZE, &before);
    append(path, "fourth\n");
    append(path, "fifth\n");
    EXPECT_EQ("first\nse\nfourth\nfifth\n", file_now(path));
    EXPECT_EQ(1, log.count("cannot be written: "));
}
