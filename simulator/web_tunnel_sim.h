// web_tunnel_sim.h - NM's end of the remote-web tunnel. Each browser connection has an id in the tunnel: its bytes go
// out as request frames, and response frames of the id go back to it. When the device side is closed, the browser's
// connection is closed after its last bytes; when the browser closes, the agent is told so. Tests can also open ids
// without a browser, send any bytes and look at what comes back.
#pragma once

#include <map>
#include <memory>

#include "tunnel_sim.h"

enum WebFrameType : uint8_t {
    WEB_FRAME_REQ = 2,
    WEB_FRAME_RESP = 3,
    WEB_FRAME_DEV_DESTROY = 4,
    WEB_FRAME_WEB_DESTROY = 5,
};

constexpr uint32_t k_web_header_size = 17;
constexpr uint32_t k_web_payload_max = 16384 - 17; // a longer request does not fit into the agent's receive buffer

// A header as it is on the wire, length and id big-endian, whether the length is true or not; and a whole frame.
std::string web_header(uint8_t type, uint64_t id, uint32_t length);
std::string web_frame(uint8_t type, uint64_t id, const std::string &payload = "");

struct WebIdStats {
    bool browser = false;              // belongs to a browser; else opened by a test
    std::string data;                  // response bytes of an id without a browser
    uint64_t bytes_in = 0;             // response bytes
    std::vector<uint32_t> frame_sizes; // of its response frames, in order
    uint32_t dev_destroys = 0;         // how often the agent said that the device side is closed
    bool web_destroyed = false;        // NM has told the agent that the browser is gone
};

struct WebTunnelStats : TunnelStats {
    uint64_t frames_in = 0;
    uint64_t frames_out = 0;   // requests of browsers
    uint32_t frame_in_max = 0; // largest response payload
    uint32_t open_browsers = 0;
    std::map<uint64_t, WebIdStats> ids; // all so far, those of earlier connections included
};

class WebTunnelSim : public TunnelSimWith<WebTunnelStats>
{
  public:
    explicit WebTunnelSim(const TunnelSimOptions &options);
    ~WebTunnelSim() override;

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

  private:
    struct Browser {
        WebTunnelSim *sim;
        uint64_t id;
        uint32_t connection; // connection_ at the time of opening
        bufferevent *bev;
        bool closing; // nothing more comes from the device: closed when its output has left
    };

    uint64_t id_new(bool browser);
    bool frame_extract(evbuffer *in);
    void frame_handle(uint8_t type, uint64_t id, const std::string &payload);
    void response(uint64_t id, const std::string &payload);
    void requests_send(Browser *browser);
    void browser_finish(Browser *browser);
    void browser_end(Browser *browser);
    static void on_browser_read(bufferevent *bev, void *browser);
    static void on_browser_written(bufferevent *bev, void *browser);
    static void on_browser_event(bufferevent *bev, short what, void *browser);

    // Loop thread only.
    std::map<uint64_t, std::unique_ptr<Browser>> browsers_;
    uint32_t connection_ = 0; // number of the agent's connection: how many have ended before

    uint32_t ids_used_ = 0; // guarded by mutex_
};
