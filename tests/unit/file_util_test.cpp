#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "runtime/file_util.h"
#include "runtime/wait.h"

static std::string make_dir()
{
    char path[] = "/tmp/file_util_XXXXXX";
    return mkdtemp(path);
}

static void put_file(const std::string &path, const std::string &content)
{
    FILE *file = fopen(path.c_str(), "w");
    ASSERT_TRUE(file);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
}

TEST(FileUtil, LockExcludesOtherProcesses)
{
    std::string path = make_dir() + "/file";
    put_file(path, "x");
    int fd = open(path.c_str(), O_RDWR);
    log_capture_begin();
    EXPECT_EQ(0, lock_file(fd, F_WRLCK, 0));
    EXPECT_EQ("", log_capture_end());
    pid_t child = fork();
    if (child == 0) { // exit status: 0 when one try and two tries fail in their time with their lines
        int own = open(path.c_str(), O_RDWR);
        log_capture_begin();
        int once = lock_file(own, F_WRLCK, 0);
        int64_t start = wait_now_ms();
        int twice = lock_file(own, F_RDLCK, 50);
        bool waited = wait_now_ms() - start >= 49;
        std::string failed = "[WRN] Set file lock failed: Resource temporarily unavailable\n";
        std::string again = "[WRN] Set file lock failed again: Resource temporarily unavailable\n";
        _exit(once == -1 && twice == -1 && waited && log_capture_end() == failed + failed + again ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, lock_file(fd, F_UNLCK, 0));
    close(fd);
    log_capture_begin();
    EXPECT_EQ(-1, lock_file(-1, F_WRLCK, 0));
    EXPECT_EQ("[WRN] Set file lock failed: Bad file descriptor\n", log_capture_end());
}
