// web_tunnel_sim.h - NM's end of the remote-web tunnel: each browser connection is one id in the tunnel. Its bytes go
// out as request frames, response frames go back to it; when the device has closed, the browser is closed behind its
// bytes; when a browser connection has ended, the agent is told so. For tests there are ids without a browser: open
// them, send any bytes, look at what came back.
#pragma once

#include <map>

#include "tunnel_sim.h"

enum WebFrameType : uint8_t {
    WEB_FRAME_REQ = 2,
    WEB_FRAME_RESP = 3,
    WEB_FRAME_DEV_DESTROY = 4,
    WEB_FRAME_WEB_DESTROY = 5,
};

static const uint32_t k_web_header_size = 17;
static const uint32_t k_web_payload_max = 16384 - 17; // longer requests never fit into the agent's receive buffer

// Any header, also a lying one; id goes out with its highest byte first.
std::string web_header(uint8_t type, uint64_t id, uint32_t length);
std::string web_frame(uint8_t type, uint64_t id, const std::string &payload = "");

struct WebIdStats {
    bool browser = false;              // serves a local connection; else opened by a test
    std::string data;                  // response bytes of an id without a browser
    uint64_t bytes_in = 0;             // response bytes
    std::vector<uint32_t> frame_sizes; // of its response frames, in order
    uint32_t dev_destroys = 0;         // how often the agent said that the device side is closed
    bool web_destroyed = false;        // we said that the browser is gone
};

struct WebTunnelStats : TunnelStats {
    uint64_t frames_in = 0;
    uint64_t frames_out = 0;   // made from browsers' bytes
    uint32_t frame_in_max = 0; // largest response payload
    uint32_t open_browsers = 0;
    std::map<uint64_t, WebIdStats> ids; // all so far, also of earlier connections
};

class WebTunnelSim : public TunnelSim
{
  public:
    explicit WebTunnelSim(const TunnelSimOptions &options);
    ~WebTunnelSim() override;

    WebTunnelStats stats();

    // Waits until the predicate holds for the statistics; false when it does not within wait_ms.
    bool wait(int wait_ms, const std::function<bool(const WebTunnelStats &)> &predicate);

    // A fresh id without a browser.
    uint64_t open_id();

  protected:
    void agent_ready() override
    {
    }
    void agent_data(evbuffer *in) override;
    void agent_drained() override;
    void agent_gone() override;
    void client_accepted(int fd) override;
    TunnelStats &common() override
    {
        return stats_;
    }

  private:
    struct Browser {
        WebTunnelSim *sim;
        uint64_t id;
        uint32_t connection; // of the agent, at the time of opening
        bufferevent *bev;
        bool closing; // no more from the device: ends when its output has left
    };

    uint64_t id_new(bool browser);
    bool frame_take(evbuffer *in);
    void frame_handle(uint8_t type, uint64_t id, const std::string &payload);
    void response(uint64_t id, const std::string &payload);
    void requests_send(Browser *browser);
    void browser_finish(Browser *browser);
    void browser_end(Browser *browser);
    static void on_browser_read(bufferevent *bev, void *browser);
    static void on_browser_written(bufferevent *bev, void *browser);
    static void on_browser_event(bufferevent *bev, short what, void *browser);

    WebTunnelStats stats_;                                  // under mutex_
    std::map<uint64_t, std::unique_ptr<Browser>> browsers_; // loop thread only
    uint32_t connection_ = 0;                               // of the agent, counted by their ends; loop thread only
    uint32_t ids_used_ = 0;                                 // under mutex_
};
