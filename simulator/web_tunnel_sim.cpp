#include "web_tunnel_sim.h"

#include <algorithm>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <string.h>
#include <unistd.h>

#include "sim_socket.h"

static const unsigned char k_magic[4] = {0x00, 0x00, 0xDD, 0xCC};
constexpr uint32_t FRAME_IN_MAX = 1024 * 1024;   // bytes; the agent's own bound of a response payload
constexpr uint64_t ID_BASE = 0xA500000000000000; // ids differ in the last bytes only, after a row of NUL bytes
constexpr size_t BROWSER_READ_MAX = 64 * 1024;   // bytes read ahead from a browser when the agent is slower

std::string web_header(uint8_t type, uint64_t id, uint32_t length)
{
    std::string header((const char *)k_magic, sizeof(k_magic));
    for (int shift = 24; shift >= 0; shift -= 8)
        header.push_back((char)(length >> shift));
    header.push_back((char)type);
    for (int shift = 56; shift >= 0; shift -= 8)
        header.push_back((char)(id >> shift));
    return header;
}

std::string web_frame(uint8_t type, uint64_t id, const std::string &payload)
{
    return web_header(type, id, (uint32_t)payload.size()) + payload;
}

static uint64_t big_endian(const unsigned char *bytes, int count)
{
    uint64_t value = 0;
    for (int i = 0; i < count; i++)
        value = value << 8 | bytes[i];
    return value;
}

WebTunnelSim::WebTunnelSim(const TunnelSimOptions &options) : TunnelSimWith(options)
{
    open(options);
}

WebTunnelSim::~WebTunnelSim()
{
    close_all();
    sim_loop_call(loop_, [this] { agent_gone(); });
}

uint64_t WebTunnelSim::id_new(bool browser)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t id = ID_BASE | ++ids_used_;
    stats_.ids[id].browser = browser;
    return id;
}

uint64_t WebTunnelSim::open_id()
{
    return id_new(false);
}

void WebTunnelSim::agent_gone()
{
    connection_++;
    for (auto it = browsers_.begin(); it != browsers_.end();) {
        Browser *browser = it->second.get();
        ++it; // a browser that ends leaves the map
        browser_finish(browser);
    }
}

void WebTunnelSim::agent_data(evbuffer *in)
{
    while (agent_ && frame_extract(in)) {
    }
}

bool WebTunnelSim::frame_extract(evbuffer *in)
{
    unsigned char header[k_web_header_size];
    if (evbuffer_copyout(in, header, sizeof(header)) < (ev_ssize_t)sizeof(header))
        return false;
    const auto length = (uint32_t)big_endian(header + 4, 4);
    if (memcmp(header, k_magic, sizeof(k_magic)) != 0 || length > FRAME_IN_MAX) {
        problem("frame: wrong magic or a length of " + std::to_string(length));
        agent_drop();
        return false;
    }
    if (evbuffer_get_length(in) < sizeof(header) + length)
        return false;
    std::string payload(length, '\0');
    evbuffer_drain(in, sizeof(header));
    evbuffer_remove(in, &payload[0], length);
    update([&] {
        stats_.frames_in++;
        stats_.bytes_in += sizeof(header) + length;
    });
    frame_handle(header[8], big_endian(header + 9, 8), payload);
    return true;
}

void WebTunnelSim::frame_handle(uint8_t type, uint64_t id, const std::string &payload)
{
    bool known = false;
    update([&] { known = stats_.ids.count(id) != 0; });
    if (!known) {
        problem("frame: type " + std::to_string(type) + " for an id that was never opened");
    } else if (type == WEB_FRAME_RESP && !payload.empty()) {
        response(id, payload);
    } else if (type == WEB_FRAME_DEV_DESTROY && payload.empty()) {
        update([&] { stats_.ids[id].dev_destroys++; });
        auto browser = browsers_.find(id);
        if (browser != browsers_.end())
            browser_finish(browser->second.get());
    } else {
        problem("frame: type " + std::to_string(type) + " with " + std::to_string(payload.size()) + " bytes");
    }
}

void WebTunnelSim::response(uint64_t id, const std::string &payload)
{
    auto browser = browsers_.find(id);
    if (browser != browsers_.end())
        bufferevent_write(browser->second->bev, payload.data(), payload.size());
    update([&] {
        WebIdStats &of_id = stats_.ids[id];
        of_id.bytes_in += payload.size();
        of_id.frame_sizes.push_back((uint32_t)payload.size());
        stats_.frame_in_max = std::max(stats_.frame_in_max, (uint32_t)payload.size());
        if (!of_id.browser)
            of_id.data += payload;
    });
}

// Sends what the browser has sent, in frames, as long as the agent keeps up.
void WebTunnelSim::requests_send(Browser *browser)
{
    evbuffer *in = bufferevent_get_input(browser->bev);
    while (agent_ && evbuffer_get_length(in) > 0 && evbuffer_get_length(bufferevent_get_output(agent_)) < OUTPUT_HIGH) {
        std::string payload(std::min<size_t>(evbuffer_get_length(in), k_web_payload_max), '\0');
        evbuffer_remove(in, &payload[0], payload.size());
        agent_send(web_frame(WEB_FRAME_REQ, browser->id, payload));
        update([this] { stats_.frames_out++; });
    }
}

void WebTunnelSim::agent_drained()
{
    for (auto &entry : browsers_)
        requests_send(entry.second.get());
}

void WebTunnelSim::browser_finish(Browser *browser)
{
    browser->closing = true;
    bufferevent_disable(browser->bev, EV_READ);
    if (evbuffer_get_length(bufferevent_get_output(browser->bev)) == 0)
        browser_end(browser);
}

void WebTunnelSim::browser_end(Browser *browser)
{
    const uint64_t id = browser->id;
    if (!browser->closing)
        requests_send(browser);
    const bool present = authenticated_ && browser->connection == connection_;
    bufferevent_free(browser->bev);
    browsers_.erase(id);
    update([&] {
        stats_.open_browsers--;
        stats_.ids[id].web_destroyed = true;
    });
    if (present)
        agent_send(web_frame(WEB_FRAME_WEB_DESTROY, id));
}

void WebTunnelSim::on_browser_read(bufferevent *, void *browser)
{
    auto *self = (Browser *)browser;
    self->sim->requests_send(self);
}

void WebTunnelSim::on_browser_written(bufferevent *, void *browser)
{
    auto *self = (Browser *)browser;
    if (self->closing)
        self->sim->browser_end(self);
}

void WebTunnelSim::on_browser_event(bufferevent *, short, void *browser)
{
    auto *self = (Browser *)browser;
    self->sim->browser_end(self);
}

void WebTunnelSim::client_accepted(int fd)
{
    if (!authenticated_) {
        close(fd);
        return;
    }
    bufferevent *bev = sim_conn_open(loop_, fd, nullptr);
    const uint64_t id = id_new(true);
    auto browser = std::make_unique<Browser>(Browser{this, id, connection_, bev, false});
    bufferevent_setcb(bev, on_browser_read, on_browser_written, on_browser_event, browser.get());
    bufferevent_setwatermark(bev, EV_READ, 0, BROWSER_READ_MAX);
    bufferevent_enable(bev, EV_READ | EV_WRITE);
    browsers_[id] = std::move(browser);
    update([this] { stats_.open_browsers++; });
}
