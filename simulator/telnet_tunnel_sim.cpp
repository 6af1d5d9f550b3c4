#include "telnet_tunnel_sim.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <unistd.h>

#include "sim_socket.h"

static const char k_result_true[] = "{\"result\":\"true\"}";
static const char k_result_false[] = "{\"result\":\"false\"}";
static const char k_init[] = "{\"type\":\"INIT\"}";
static const timeval k_pause = {0, 50 * 1000}; // so that the agent reads two messages one by one
constexpr size_t HELD_MAX = 1024 * 1024;       // bytes
constexpr size_t KEYS_MAX = 64 * 1024;         // bytes read ahead from a client when the agent is slower

TelnetTunnelSim::TelnetTunnelSim(const TunnelSimOptions &options, TelnetAnswers answers)
    : TunnelSimWith(options), answers_(answers), pause_(event_new(sim_loop_base(loop_), -1, 0, on_pause, this))
{
    open(options);
}

TelnetTunnelSim::~TelnetTunnelSim()
{
    close_all();
    sim_loop_call(loop_, [this] {
        agent_gone();
        event_free(pause_);
    });
}

std::string TelnetTunnelSim::take_held()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(stats_.held);
}

void TelnetTunnelSim::set_answers(TelnetAnswers answers)
{
    sim_loop_call(loop_, [&] { answers_ = answers; });
}

void TelnetTunnelSim::send_init()
{
    sim_loop_call(loop_, [this] { init_send(); });
}

void TelnetTunnelSim::init_send()
{
    agent_send(k_init);
    update([this] { stats_.inits++; });
}

void TelnetTunnelSim::pause_start()
{
    event_add(pause_, &k_pause);
}

// The agent has read what was sent before: now the control message, or the client's keys.
void TelnetTunnelSim::pause_ended()
{
    if (init_due_) {
        init_due_ = false;
        init_send();
        pause_start();
    } else if (client_) {
        bufferevent_enable(client_, EV_READ);
    }
}

void TelnetTunnelSim::on_pause(int, short, void *self)
{
    ((TelnetTunnelSim *)self)->pause_ended();
}

void TelnetTunnelSim::agent_ready()
{
    session_used_ = false;
    update([this] { stats_.held.clear(); }); // of an earlier connection
    switch (answers_) {
    case TELNET_ANSWER_SEPARATE:
        agent_send(k_result_true);
        init_due_ = true;
        pause_start();
        break;
    case TELNET_ANSWER_ONE_SEGMENT:
        agent_send(std::string(k_result_true) + k_init);
        update([this] { stats_.inits++; });
        break;
    case TELNET_ANSWER_NO_INIT:
        agent_send(k_result_true);
        break;
    case TELNET_ANSWER_REFUSE:
        agent_send(k_result_false);
        break;
    case TELNET_ANSWER_SILENT:
        break;
    }
}

void TelnetTunnelSim::agent_data(evbuffer *in)
{
    std::string bytes(evbuffer_get_length(in), '\0');
    evbuffer_remove(in, &bytes[0], bytes.size());
    if (client_)
        bufferevent_write(client_, bytes.data(), bytes.size());
    update([&] {
        stats_.bytes_in += bytes.size();
        if (!client_) {
            stats_.held += bytes;
            if (stats_.held.size() > HELD_MAX)
                stats_.held.erase(0, stats_.held.size() - HELD_MAX);
        }
    });
}

void TelnetTunnelSim::keys_send()
{
    if (agent_ && evbuffer_get_length(bufferevent_get_output(agent_)) < OUTPUT_HIGH) {
        evbuffer *in = bufferevent_get_input(client_);
        std::string keys(evbuffer_get_length(in), '\0');
        evbuffer_remove(in, &keys[0], keys.size());
        agent_send(keys);
    }
}

void TelnetTunnelSim::agent_drained()
{
    if (client_)
        keys_send();
}

void TelnetTunnelSim::agent_gone()
{
    event_del(pause_);
    init_due_ = false;
    if (client_) // the device's last bytes still go out, as far as the socket takes them
        evbuffer_write(bufferevent_get_output(client_), bufferevent_getfd(client_));
    client_end();
}

void TelnetTunnelSim::client_end()
{
    if (client_) {
        bufferevent_free(client_);
        client_ = nullptr;
        update([this] { stats_.client = false; });
    }
}

void TelnetTunnelSim::on_client_read(bufferevent *, void *self)
{
    ((TelnetTunnelSim *)self)->keys_send();
}

void TelnetTunnelSim::on_client_event(bufferevent *, short, void *self)
{
    auto *sim = (TelnetTunnelSim *)self;
    sim->keys_send();
    sim->client_end();
}

void TelnetTunnelSim::client_accepted(int fd)
{
    if (!authenticated_ || client_) {
        close(fd);
        return;
    }
    client_ = sim_conn_open(loop_, fd, nullptr);
    bufferevent_setcb(client_, on_client_read, nullptr, on_client_event, this);
    bufferevent_setwatermark(client_, EV_READ, 0, KEYS_MAX);
    const bool fresh = session_used_; // the session in use is an earlier client's
    update([&] {
        stats_.client = true;
        if (!fresh)
            bufferevent_write(client_, stats_.held.data(), stats_.held.size());
        stats_.held.clear();
    });
    session_used_ = true;
    if (fresh) {
        init_send();
        pause_start();
    } else if (!event_pending(pause_, EV_TIMEOUT, nullptr)) { // otherwise the pause's end enables reading
        bufferevent_enable(client_, EV_READ);
    }
}
