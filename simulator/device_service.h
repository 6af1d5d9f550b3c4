// device_service.h - for tests and measurements: the services of a device (its web server, its telnet service), and
// blocking sockets for the clients at NM's end of the tunnels.
// Threads: any, unless stated.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <stddef.h>
#include <string>
#include <thread>
#include <vector>

const int k_socket_wait_ms = 40000; // time limit of each send and receive below

// A TCP service on a free port of 127.0.0.1. Each connection has a thread that runs serve, then closes it. The
// destructor ends all connections and waits for their threads.
class DeviceService
{
  public:
    // open: listen at once. buffer_size: of its sockets, bytes in each direction; 0: the system's default.
    explicit DeviceService(std::function<void(int fd)> serve, bool open = true, int buffer_size = 0);
    ~DeviceService();
    int port() const
    {
        return port_;
    }
    void open(); // once, for a service made with open false; it refuses connections until then

    // Waits until that many connections are being served. False after wait_ms.
    bool wait_serving(size_t count, int wait_ms = k_socket_wait_ms);
    int accepted(); // so far
    void hang_up(); // shuts every connection down

  private:
    void accept_loop();

    std::function<void(int fd)> serve_;
    int listener_;
    int port_;
    std::mutex mutex_; // guards the members below
    std::condition_variable changed_;
    std::set<int> serving_;
    int accepted_ = 0;
    std::map<int, std::thread> threads_; // by number of the connection
    std::vector<int> ended_;             // those that can be joined: their memory is freed so
    std::thread acceptor_;
};

// Blocking sockets. client_connect goes to 127.0.0.1; the caller closes the descriptor.
int client_connect(int port); // with TCP_NODELAY, as browsers and telnet clients set it; -1 when refused
bool fd_send(int fd, const std::string &bytes);
std::string fd_read(int fd, size_t size); // fewer bytes at the end of the stream or the time limit
std::string fd_read_line(int fd);         // without its "\n"
std::string fd_read_all(int fd);          // to the end of the stream
// Connects, sends the request and reads to the end of the stream.
std::string answer_of(int port, const std::string &request);

// Pseudo-random bytes; the same for the same seed.
std::string noise(size_t size, unsigned seed);

// Functions for DeviceService. serve_web_files reads one line and answers by it:
//   "SIZE SEED"        sends noise(SIZE, SEED)
//   "+SIZE"            reads SIZE bytes and answers "ok" when they are noise(SIZE, 1), else "spoilt"
//   "+SIZE STEP MS"    the same, reading STEP bytes at a time with pauses of MS between them
// serve_echo sends back what it reads.
void serve_web_files(int fd);
void serve_echo(int fd);
// Runs a program with the connection as its standard input and output, as inetd does.
std::function<void(int fd)> serve_program(const std::vector<std::string> &words);
