#include "device_service.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

static void time_limits_set(int fd)
{
    const timeval limit = {k_socket_wait_ms / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

static sockaddr_in loopback(int port)
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons((uint16_t)port);
    return addr;
}

DeviceService::DeviceService(std::function<void(int fd)> serve, bool open_now, int buffer_size)
    : serve_(std::move(serve)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof(addr);
    bind(listener_, (sockaddr *)&addr, len);
    getsockname(listener_, (sockaddr *)&addr, &len);
    port_ = ntohs(addr.sin_port);
    for (int option : {SO_RCVBUF, SO_SNDBUF}) { // accepted sockets inherit them
        if (buffer_size != 0)
            setsockopt(listener_, SOL_SOCKET, option, &buffer_size, sizeof(buffer_size));
    }
    if (open_now)
        open();
}

DeviceService::~DeviceService()
{
    shutdown(listener_, SHUT_RDWR);
    if (acceptor_.joinable())
        acceptor_.join();
    hang_up();
    for (auto &one : threads_)
        one.second.join();
    close(listener_);
}

void DeviceService::hang_up()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : serving_)
        shutdown(fd, SHUT_RDWR);
}

void DeviceService::open()
{
    listen(listener_, 64);
    acceptor_ = std::thread([this] { accept_loop(); });
}

void DeviceService::accept_loop()
{
    int fd;
    while ((fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
        time_limits_set(fd);
        std::lock_guard<std::mutex> lock(mutex_);
        for (int ended : ended_) {
            threads_[ended].join();
            threads_.erase(ended);
        }
        ended_.clear();
        const int number = ++accepted_;
        serving_.insert(fd);
        changed_.notify_all();
        threads_[number] = std::thread([this, fd, number] {
            serve_(fd);
            std::lock_guard<std::mutex> done(mutex_);
            serving_.erase(fd);
            close(fd);
            ended_.push_back(number);
            changed_.notify_all();
        });
    }
}

bool DeviceService::wait_serving(size_t count, int wait_ms)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(wait_ms), [&] { return serving_.size() == count; });
}

int DeviceService::accepted()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return accepted_;
}

int client_connect(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    time_limits_set(fd);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    sockaddr_in addr = loopback(port);
    if (connect(fd, (sockaddr *)&addr, sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool fd_send(int fd, const std::string &bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t result = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result <= 0)
            return false;
        sent += (size_t)result;
    }
    return true;
}

std::string fd_read(int fd, size_t size)
{
    std::string bytes(size, '\0');
    size_t got = 0;
    ssize_t result;
    while (got < size && (result = recv(fd, &bytes[got], size - got, 0)) > 0)
        got += (size_t)result;
    bytes.resize(got);
    return bytes;
}

std::string fd_read_line(int fd)
{
    std::string line;
    std::string byte;
    while ((byte = fd_read(fd, 1)) != "\n" && !byte.empty())
        line += byte;
    return line;
}

std::string fd_read_all(int fd)
{
    std::string all;
    std::string some;
    do {
        some = fd_read(fd, 65536);
        all += some;
    } while (some.size() == 65536);
    return all;
}

std::string answer_of(int port, const std::string &request)
{
    int fd = client_connect(port);
    fd_send(fd, request);
    std::string answer = fd_read_all(fd);
    close(fd);
    return answer;
}

std::string noise(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char &byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = (char)(state >> 24);
    }
    return bytes;
}

static std::string read_in_steps(int fd, size_t size, size_t step, unsigned rest_ms)
{
    std::string got = fd_read(fd, std::min(step, size));
    for (std::string some = got; got.size() < size && !some.empty(); got += some) {
        usleep(rest_ms * 1000);
        some = fd_read(fd, std::min(step, size - got.size()));
    }
    return got;
}

void serve_web_files(int fd)
{
    const std::string line = fd_read_line(fd);
    unsigned size = 0;
    unsigned seed = 1;
    unsigned step = 0;
    unsigned rest_ms = 0;
    if (sscanf(line.c_str(), "+%u %u %u", &size, &step, &rest_ms) >= 1)
        fd_send(fd, read_in_steps(fd, size, step == 0 ? size : step, rest_ms) == noise(size, seed) ? "ok" : "spoilt");
    else if (sscanf(line.c_str(), "%u %u", &size, &seed) == 2)
        fd_send(fd, noise(size, seed));
}

void serve_echo(int fd)
{
    char bytes[4096];
    ssize_t got;
    while ((got = recv(fd, bytes, sizeof(bytes), 0)) > 0 && fd_send(fd, std::string(bytes, (size_t)got))) {
    }
}

std::function<void(int fd)> serve_program(const std::vector<std::string> &words)
{
    return [words](int fd) {
        std::vector<char *> argv;
        for (const std::string &word : words)
            argv.push_back((char *)word.c_str());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fd, 0);
        posix_spawn_file_actions_adddup2(&actions, fd, 1);
        pid_t pid;
        if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0)
            waitpid(pid, nullptr, 0);
        posix_spawn_file_actions_destroy(&actions);
    };
}
