// tunnel_stage.h - what the tests of both tunnels need: services of the device, local clients, and the harness's stage
// with NM's tunnel ends added.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "telnet_tunnel_sim.h"
#include "web_tunnel_sim.h"

// A TCP service of the device on a free port of the loopback address. Each connection has a thread that runs serve and
// closes it then; a service that is gone has ended all of them.
class DeviceService
{
  public:
    explicit DeviceService(std::function<void(int fd)> serve, bool open = true);
    ~DeviceService();
    int port() const
    {
        return port_;
    }
    void open(); // a service made with open false refuses connections until then

    // Waits until that many connections are being served. False after wait_ms.
    bool wait_serving(size_t count, int wait_ms = k_wait_ms);
    int accepted(); // so far

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

// Blocking sockets with a time-out of k_wait_ms on both ends of the tunnels.
int client_connect(int port);
bool fd_send(int fd, const std::string &bytes);
std::string fd_read(int fd, size_t size); // fewer at an end or a time-out
std::string fd_read_line(int fd);         // without its "\n"
std::string fd_read_all(int fd);
std::string answer_of(int port, const std::string &request); // sends, reads to the end

// Bytes that look like nothing and differ by seed.
std::string noise(size_t size, unsigned seed);

// serve functions. web_files answers "<size> <seed>\n" with that much noise, and closes; with "+<size>\n" it takes that
// many bytes and answers "ok" when they are noise of seed 1. echo sends back what comes.
void serve_web_files(int fd);
void serve_echo(int fd);
// Runs a program with the connection as its standard input and output, as inetd does.
std::function<void(int fd)> serve_program(const std::vector<std::string> &words);

struct TunnelStage : Stage {
    TunnelStage();
    std::unique_ptr<WebTunnelSim> web;
    std::unique_ptr<TelnetTunnelSim> telnet;
    TunnelSimOptions options; // of both; tls as in https
};

// NM's tunnel ends on free ports, the agent online with heartbeats every second and debug lines. A service without a
// port of interest: nullptr. stage->options and stage->config may hold rows already.
bool tunnel_stage_start(TunnelStage *stage, bool https, const DeviceService *web, const DeviceService *telnet);

bool web_command(TunnelStage *stage, const std::string &action); // returns when the agent has it
bool telnet_command(TunnelStage *stage, const std::string &action);
bool web_open(TunnelStage *stage);    // "start", and waits for the authentication
bool telnet_open(TunnelStage *stage); // "start", and waits for the relay
bool web_close(TunnelStage *stage);   // "stop", and waits for the end of the connection
bool telnet_close(TunnelStage *stage);

// What NM's tunnel ends found wrong, one line each.
std::string tunnel_problems(const TunnelStage &stage);

// Waits for what no event tells, such as a count in /proc.
bool eventually(const std::function<bool()> &holds, int wait_ms = k_wait_ms);
