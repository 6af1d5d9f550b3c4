// device_service.h - services of a device for tests and measurements: its web server and telnet service, small ones
// made here or real programs; and blocking sockets for the people at the other end.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <stddef.h>
#include <string>
#include <thread>
#include <vector>

const int k_socket_wait_ms = 40000; // of every blocking call below

// A TCP service of the device on a free port of the loopback address. Each connection has a thread that runs serve and
// closes it then; a service that is gone has ended all of them.
class DeviceService
{
  public:
    // buffer_size: of its sockets, each direction, in bytes; 0: the system's default.
    explicit DeviceService(std::function<void(int fd)> serve, bool open = true, int buffer_size = 0);
    ~DeviceService();
    int port() const
    {
        return port_;
    }
    void open(); // a service made with open false refuses connections until then

    // Waits until that many connections are being served. False after wait_ms.
    bool wait_serving(size_t count, int wait_ms = k_socket_wait_ms);
    int accepted(); // so far
    void hang_up(); // ends every connection

  private:
    void accept_loop();

    std::function<void(int fd)> serve_;
    int listener_;
    int port_;
    std::mutex mutex_; // guards the members below
    std::condition_variable changed_;
    std::set<int> serving_;
    int accepted_ = 0;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

// Blocking sockets with a time-out of k_socket_wait_ms on both ends of the tunnels.
int client_connect(int port); // with TCP_NODELAY, as browsers and telnet clients set it; -1 when refused
bool fd_send(int fd, const std::string &bytes);
std::string fd_read(int fd, size_t size); // fewer at an end or a time-out
std::string fd_read_line(int fd);         // without its "\n"
std::string fd_read_all(int fd);
std::string answer_of(int port, const std::string &request); // sends, reads to the end

// Bytes that look like nothing and differ by seed.
std::string noise(size_t size, unsigned seed);

// serve functions. web_files answers "<size> <seed>\n" with that much noise, and closes; with "+<size>\n" it takes that
// many bytes and answers "ok" when they are noise of seed 1; "+<size> <step> <ms>\n": step bytes at a time, with rests
// between them. echo sends back what comes.
void serve_web_files(int fd);
void serve_echo(int fd);
// Runs a program with the connection as its standard input and output, as inetd does.
std::function<void(int fd)> serve_program(const std::vector<std::string> &words);
