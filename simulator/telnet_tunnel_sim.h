// telnet_tunnel_sim.h - NM's end of the remote-telnet tunnel: answers the authentication, sends the control message
// "INIT", then relays one telnet client at a time. For each client after the first "INIT" is sent again, so that the
// agent opens a fresh session of the device.
#pragma once

#include "tunnel_sim.h"

enum TelnetAnswers {
    TELNET_ANSWER_SEPARATE,    // the result, and after a pause the control message
    TELNET_ANSWER_ONE_SEGMENT, // both in one write
    TELNET_ANSWER_NO_INIT,     // the result only
    TELNET_ANSWER_REFUSE,      // a result of "false"
    TELNET_ANSWER_SILENT,      // nothing at all
};

struct TelnetTunnelStats : TunnelStats {
    uint32_t inits = 0; // control messages sent
    bool client = false;
    std::string held; // received while there was no client; the next one gets it (the newest 1 MiB)
};

class TelnetTunnelSim : public TunnelSimWith<TelnetTunnelStats>
{
  public:
    TelnetTunnelSim(const TunnelSimOptions &options, TelnetAnswers answers = TELNET_ANSWER_SEPARATE);
    ~TelnetTunnelSim() override;

    void set_answers(TelnetAnswers answers);
    void send_init(); // the control message, at any time
    std::string take_held();

  protected:
    void agent_ready() override;
    void agent_data(evbuffer *in) override;
    void agent_drained() override;
    void agent_gone() override;
    void client_accepted(int fd) override;

  private:
    void init_send();
    void pause_start();
    void pause_ended();
    void client_end();
    void keys_send();
    static void on_pause(int fd, short what, void *self);
    static void on_client_read(bufferevent *bev, void *self);
    static void on_client_event(bufferevent *bev, short what, void *self);

    // Loop thread only.
    TelnetAnswers answers_;
    struct event *pause_;
    bufferevent *client_ = nullptr;
    bool init_due_ = false;     // at the end of the pause
    bool session_used_ = false; // a client has used the device's present session
};
