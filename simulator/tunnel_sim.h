// tunnel_sim.h - NM's end of a tunnel: a port that the agent connects to and one on which local people connect. What
// both tunnels have in common; web_tunnel_sim.h and telnet_tunnel_sim.h add what goes through them. Threads: each
// instance has a loop thread; every public call is for any other thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdint.h>
#include <string>
#include <vector>

#include "sim_loop.h"

struct bufferevent;
struct evbuffer;
struct ev_token_bucket_cfg;
struct evconnlistener;
typedef struct ssl_ctx_st SSL_CTX;

// What the agent has to present right after connecting.
struct TunnelAuth {
    std::string ver = "0.1";
    std::string device_sn;
    std::string token;
    int32_t key = 0;
    std::string sessionid;
};

struct TunnelSimOptions {
    TunnelAuth auth;
    bool tls = false;  // as with an NM reached over https: the agent comes to command_port + 1 and speaks TLS
    bool mute = false; // takes the agent's connection and never reads or answers, not even a TLS greeting
    std::string address = "127.0.0.1";
    uint16_t command_port = 0; // the port that NM's command names; 0: a free one
    uint16_t client_port = 0;  // for browsers or telnet clients; 0: a free one
    int receive_buffer = 0;    // bytes, of the agent's connections; 0: the system's default
};

struct TunnelStats {
    uint32_t connects = 0; // agent connections accepted so far
    uint32_t closes = 0;   // of these: ended by either side
    bool connected = false;
    bool authenticated = false;
    std::string auth_text; // as received last, without its NUL
    uint32_t clients = 0;  // local connections accepted so far
    uint64_t bytes_in = 0; // from the agent, behind the authentication
    uint64_t bytes_out = 0;
    std::vector<std::string> problems; // whatever the agent did wrong, in order
};

// Empty when text is what expected asks for, byte by byte; else the first thing that is wrong with it.
std::string tunnel_auth_check(const std::string &text, const TunnelAuth &expected);

class TunnelSim
{
  public:
    virtual ~TunnelSim();
    TunnelSim(const TunnelSim &) = delete;
    TunnelSim &operator=(const TunnelSim &) = delete;

    bool listening() const
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

    // These go to the agent's connection and do nothing without one. A text given to send_bytes leaves in one write,
    // over TLS in one record up to 16,384 bytes.
    void send_bytes(const std::string &bytes);
    void stall_reading(bool stall);
    void read_slowly(int bytes_per_s);    // 0: as fast as it can
    size_t unsent();                      // bytes that the agent's kernel has not taken from us
    void close_agent(bool reset = false); // what has not left yet is lost; reset: RST instead of an orderly end

    // As the option mute, for the agent's further connections.
    void set_mute(bool mute);

    // Refuses the agent's further connections; the present one stays.
    void stop_listening();

  protected:
    explicit TunnelSim(const TunnelSimOptions &options);

    // The heirs' constructors call open last and their destructors close_all first: the loop calls the virtuals in
    // between.
    void open(const TunnelSimOptions &options);
    void close_all();

    // On the loop thread.
    virtual void agent_ready() = 0;            // its authentication was right
    virtual void agent_data(evbuffer *in) = 0; // takes what it can from in
    virtual void agent_drained() = 0;          // the output is below half of k_output_high
    virtual void agent_gone() = 0;             // the connection has ended; agent_ is null
    virtual void client_accepted(int fd) = 0;  // takes the descriptor over
    virtual TunnelStats &common() = 0;         // under mutex_

    void agent_send(const std::string &bytes);
    void agent_drop(); // ends the agent's connection
    void problem(const std::string &text);

    // Changes the statistics and wakes whoever waits for them.
    template <typename Change> void update(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        change();
        changed_.notify_all();
    }

    template <typename Predicate> bool wait_locked(std::unique_lock<std::mutex> &lock, int wait_ms, Predicate predicate)
    {
        return changed_.wait_for(lock, std::chrono::milliseconds(wait_ms), predicate);
    }

    static constexpr size_t k_output_high = 256 * 1024; // waiting for the agent: clients are not read beyond that

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
