// tunnel_sim.h - NM's end of a tunnel: one port for the agent and one for local clients (browsers, telnet). This is
// what both tunnels have in common; web_tunnel_sim.h and telnet_tunnel_sim.h add the traffic. Threads: each instance
// has a loop thread; every public call is for other threads. The callbacks run on the loop thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdint.h>
#include <string>
#include <vector>

#include "sim_loop.h"
#include "sim_tls.h"

struct bufferevent;
struct evbuffer;
struct ev_token_bucket_cfg;
struct evconnlistener;

// The authentication that the agent has to send right after connecting.
struct TunnelAuth {
    std::string ver = "0.1";
    std::string device_sn;
    std::string token;
    int32_t key = 0;
    std::string sessionid;
};

struct TunnelSimOptions {
    TunnelAuth auth;
    bool tls = false; // as with an NM reached over https: the agent connects to command_port + 1, with TLS
    SimTlsFiles tls_files;
    bool mute = false; // accepts the agent's connection and never reads from it, so TLS never starts
    std::string address = "127.0.0.1";
    uint16_t command_port = 0; // the port in NM's command; 0: a free one
    uint16_t client_port = 0;  // for local clients; 0: a free one
    int receive_buffer = 0;    // SO_RCVBUF of the agent's connections, bytes; 0: the system's default
};

struct TunnelStats {
    uint32_t connects = 0; // agent connections accepted so far
    uint32_t closes = 0;   // of these: closed, by either side
    bool connected = false;
    bool authenticated = false;
    std::string auth_text; // the last one received, without its NUL
    uint32_t clients = 0;  // local connections accepted so far
    uint64_t bytes_in = 0; // from the agent, after the authentication
    uint64_t bytes_out = 0;
    std::vector<std::string> problems; // what the agent did wrong, in order
};

class TunnelSim
{
  public:
    virtual ~TunnelSim();
    TunnelSim(const TunnelSim &) = delete;
    TunnelSim &operator=(const TunnelSim &) = delete;

    // Whether both ports are open; false when one was taken.
    bool is_listening() const
    {
        return command_port_ != 0 && client_port_ != 0;
    }
    uint16_t command_port() const
    {
        return command_port_;
    }
    uint16_t client_port() const
    {
        return client_port_;
    }

    // What the next connection has to present.
    void expect(const TunnelAuth &auth);

    // These act on the agent's connection and do nothing without one. What is given to send_bytes leaves in one write;
    // with TLS, in one record up to 16,384 bytes.
    void send_bytes(const std::string &bytes);
    void stall_reading(bool stall);
    void read_slowly(int bytes_per_s);    // 0: without a limit
    size_t unsent();                      // bytes queued here, which the socket has not taken yet
    void close_agent(bool reset = false); // what has not left yet is lost; reset: with RST

    // The option mute, for the agent's further connections.
    void set_mute(bool mute);

    // Refuses the agent's further connections; the present one stays.
    void stop_listening();

  protected:
    explicit TunnelSim(const TunnelSimOptions &options);

    // A derived class calls open at the end of its constructor and close_all at the start of its destructor: in between
    // the loop thread makes virtual calls.
    void open(const TunnelSimOptions &options);
    void close_all();

    virtual void agent_ready() = 0;            // its authentication was right
    virtual void agent_data(evbuffer *in) = 0; // takes what it can from in
    virtual void agent_drained() = 0;          // the output is down to half of OUTPUT_HIGH
    virtual void agent_gone() = 0;             // the connection has ended; agent_ is null
    virtual void client_accepted(int fd) = 0;  // owns the descriptor
    virtual TunnelStats &common() = 0;         // the caller holds mutex_

    // Loop thread.
    void agent_send(const std::string &bytes);
    void agent_drop(bool reset = false); // closes the agent's connection
    void problem(const std::string &text);

    // Changes the statistics and wakes those who wait for them. Loop thread.
    template <typename Change> void update(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        change();
        changed_.notify_all();
    }

    // Bytes queued for the agent; with more, clients are not read.
    static constexpr size_t OUTPUT_HIGH = 256 * 1024;

    SimLoop *loop_;
    std::mutex mutex_; // guards the statistics
    std::condition_variable changed_;
    bufferevent *agent_ = nullptr;
    bool authenticated_ = false;

  private:
    void agent_accepted(int fd);
    void rate_clear();
    void agent_authenticate(evbuffer *in);
    static void on_agent(evconnlistener *, int fd, struct sockaddr *, int, void *self);
    static void on_client(evconnlistener *, int fd, struct sockaddr *, int, void *self);
    static void on_read(bufferevent *bev, void *self);
    static void on_written(bufferevent *bev, void *self);
    static void on_event(bufferevent *bev, short what, void *self);

    TunnelAuth auth_;
    bool mute_;
    SSL_CTX *tls_ = nullptr;
    ev_token_bucket_cfg *rate_ = nullptr; // of the connection that is read slowly
    evconnlistener *agent_listener_ = nullptr;
    evconnlistener *client_listener_ = nullptr;
    uint16_t command_port_ = 0;
    uint16_t client_port_ = 0;
};

// A tunnel end with statistics of its own.
template <typename Stats> class TunnelSimWith : public TunnelSim
{
  public:
    Stats stats()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return stats_;
    }

    // Waits until holds is true of the statistics; false when it is not within wait_ms.
    bool wait(int wait_ms, const std::function<bool(const Stats &)> &holds)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(wait_ms), [&] { return holds(stats_); });
    }

  protected:
    using TunnelSim::TunnelSim;

    TunnelStats &common() override
    {
        return stats_;
    }

    Stats stats_; // guarded by mutex_
};
