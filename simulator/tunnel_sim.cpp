#include "tunnel_sim.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <stdlib.h>

#include "json_text.h"
#include "sim_socket.h"
#include "sim_tls.h"

constexpr size_t AUTH_MAX = 4096;           // bytes: four texts of 511, a number and the frame are fewer
constexpr int RATE_TICKS = 20;              // of a slow reader, in a second
static const timeval k_auth_wait = {10, 0}; // a connection that stays silent for longer is closed

static std::string auth_text(const TunnelAuth &auth)
{
    return "{\"ver\":\"" + auth.ver + "\",\"deviceSn\":\"" + auth.device_sn + "\",\"token\":\"" + auth.token +
           "\",\"key\":" + std::to_string(auth.key) + ",\"sessionid\":\"" + auth.sessionid + "\"}";
}

static std::string auth_fields_check(const cJSON *json, const TunnelAuth &expected)
{
    const struct {
        const char *name;
        const std::string &value;
    } texts[] = {{"ver", expected.ver},
                 {"deviceSn", expected.device_sn},
                 {"token", expected.token},
                 {"sessionid", expected.sessionid}};
    for (const auto &text : texts) {
        const cJSON *item = cJSON_GetObjectItemCaseSensitive(json, text.name);
        if (!cJSON_IsString(item))
            return std::string("authentication: no text \"") + text.name + "\"";
        if (text.value != item->valuestring)
            return std::string("authentication: \"") + text.name + "\" is \"" + item->valuestring + "\", not \"" +
                   text.value + "\"";
    }
    const cJSON *key = cJSON_GetObjectItemCaseSensitive(json, "key");
    if (!cJSON_IsNumber(key) || key->valuedouble != expected.key)
        return "authentication: \"key\" is not the bare number " + std::to_string(expected.key);
    return "";
}

// Empty when text is the authentication expected, byte by byte; else the first thing that is wrong with it.
static std::string auth_check(const std::string &text, const TunnelAuth &expected)
{
    const JsonTree json = json_parse(text);
    if (!json)
        return "authentication: not JSON: " + text;
    const std::string wrong = auth_fields_check(json.get(), expected);
    if (wrong.empty() && text != auth_text(expected))
        return "authentication: right fields, other layout: " + text;
    return wrong;
}

TunnelSim::TunnelSim(const TunnelSimOptions &options)
    : loop_(sim_loop_start()), auth_(options.auth), mute_(options.mute),
      tls_(options.tls ? sim_tls_server(options.tls_files) : nullptr)
{
    if (options.tls && !tls_)
        abort(); // it would be in plain text
}

void TunnelSim::open(const TunnelSimOptions &options)
{
    const int beyond_command = options.tls ? 1 : 0;
    int agent_port = options.command_port == 0 ? 0 : options.command_port + beyond_command;
    int client_port = options.client_port;
    sim_loop_call(loop_, [&] {
        agent_listener_ =
            sim_listener_open(loop_, options.address, &agent_port, options.receive_buffer, on_agent, this);
        client_listener_ = sim_listener_open(loop_, options.address, &client_port, 0, on_client, this);
    });
    if (agent_listener_)
        command_port_ = (uint16_t)(agent_port - beyond_command);
    if (client_listener_)
        client_port_ = (uint16_t)client_port;
}

TunnelSim::~TunnelSim()
{
    sim_loop_stop(loop_);
    SSL_CTX_free(tls_);
}

void TunnelSim::close_all()
{
    sim_loop_call(loop_, [this] {
        sim_listener_close(&agent_listener_);
        sim_listener_close(&client_listener_);
        agent_drop();
    });
}

void TunnelSim::expect(const TunnelAuth &auth)
{
    sim_loop_call(loop_, [&] { auth_ = auth; });
}

void TunnelSim::send_bytes(const std::string &bytes)
{
    sim_loop_call(loop_, [&] { agent_send(bytes); });
}

void TunnelSim::stall_reading(bool stall)
{
    sim_loop_call(loop_, [&] {
        if (agent_)
            stall ? bufferevent_disable(agent_, EV_READ) : bufferevent_enable(agent_, EV_READ);
    });
}

void TunnelSim::read_slowly(int bytes_per_s)
{
    sim_loop_call(loop_, [&] {
        rate_clear();
        if (agent_ && bytes_per_s != 0) {
            const timeval tick = {0, 1000000 / RATE_TICKS};
            const auto of_tick = (size_t)(bytes_per_s / RATE_TICKS);
            rate_ = ev_token_bucket_cfg_new(of_tick, of_tick, EV_RATE_LIMIT_MAX, EV_RATE_LIMIT_MAX, &tick);
            bufferevent_set_rate_limit(agent_, rate_);
        }
    });
}

void TunnelSim::rate_clear()
{
    if (rate_) {
        bufferevent_set_rate_limit(agent_, nullptr);
        ev_token_bucket_cfg_free(rate_);
        rate_ = nullptr;
    }
}

size_t TunnelSim::unsent()
{
    size_t size = 0;
    sim_loop_call(loop_, [&] { size = agent_ ? evbuffer_get_length(bufferevent_get_output(agent_)) : 0; });
    return size;
}

void TunnelSim::close_agent(bool reset)
{
    sim_loop_call(loop_, [&] { agent_drop(reset); });
}

void TunnelSim::set_mute(bool mute)
{
    sim_loop_call(loop_, [&] { mute_ = mute; });
}

void TunnelSim::stop_listening()
{
    sim_loop_call(loop_, [this] { sim_listener_close(&agent_listener_); });
}

void TunnelSim::problem(const std::string &text)
{
    update([&] { common().problems.push_back(text); });
}

// A copy by reference: the bytes stay one chunk of the output and so leave in one write.
void TunnelSim::agent_send(const std::string &bytes)
{
    if (!agent_ || bytes.empty())
        return;
    auto *copy = new std::string(bytes);
    evbuffer_add_reference(
        bufferevent_get_output(agent_), copy->data(), copy->size(),
        [](const void *, size_t, void *text) { delete (std::string *)text; }, copy);
    update([&] { common().bytes_out += bytes.size(); });
}

void TunnelSim::agent_drop(bool reset)
{
    if (!agent_)
        return;
    rate_clear();
    sim_conn_close(agent_, reset);
    agent_ = nullptr;
    authenticated_ = false;
    update([this] {
        common().connected = common().authenticated = false;
        common().closes++;
    });
    agent_gone();
}

void TunnelSim::agent_authenticate(evbuffer *in)
{
    const evbuffer_ptr end = evbuffer_search(in, "", 1, nullptr);
    if (end.pos < 0) {
        if (evbuffer_get_length(in) > AUTH_MAX) {
            problem("authentication: no NUL in " + std::to_string(AUTH_MAX) + " bytes");
            agent_drop();
        }
        return;
    }
    std::string text((size_t)end.pos, '\0');
    evbuffer_remove(in, &text[0], text.size());
    evbuffer_drain(in, 1);
    const std::string wrong = auth_check(text, auth_);
    update([&] { common().auth_text = text; });
    if (!wrong.empty()) {
        problem(wrong);
        agent_drop();
        return;
    }
    authenticated_ = true;
    bufferevent_set_timeouts(agent_, nullptr, nullptr);
    agent_ready();
    update([&] { common().authenticated = true; });
}

void TunnelSim::on_read(bufferevent *bev, void *self)
{
    auto *sim = (TunnelSim *)self;
    evbuffer *in = bufferevent_get_input(bev);
    if (!sim->authenticated_)
        sim->agent_authenticate(in);
    if (sim->authenticated_ && evbuffer_get_length(in) > 0)
        sim->agent_data(in);
}

void TunnelSim::on_written(bufferevent *, void *self)
{
    ((TunnelSim *)self)->agent_drained();
}

void TunnelSim::on_event(bufferevent *bev, short what, void *self)
{
    auto *sim = (TunnelSim *)self;
    if (what & BEV_EVENT_CONNECTED)
        return;
    unsigned long fault = bufferevent_get_openssl_error(bev);
    if (fault != 0 && !sim->authenticated_)
        sim->problem(std::string("TLS: ") + ERR_error_string(fault, nullptr));
    sim->agent_drop();
}

void TunnelSim::agent_accepted(int fd)
{
    agent_drop(); // the agent has opened the tunnel anew
    agent_ = sim_conn_open(loop_, fd, mute_ ? nullptr : tls_);
    bufferevent_setcb(agent_, on_read, on_written, on_event, this);
    bufferevent_setwatermark(agent_, EV_WRITE, OUTPUT_HIGH / 2, 0);
    if (!mute_)
        bufferevent_set_timeouts(agent_, &k_auth_wait, nullptr);
    bufferevent_enable(agent_, mute_ ? EV_WRITE : EV_READ | EV_WRITE);
    update([this] {
        common().connects++;
        common().connected = true;
    });
}

void TunnelSim::on_agent(evconnlistener *, int fd, sockaddr *, int, void *self)
{
    ((TunnelSim *)self)->agent_accepted(fd);
}

void TunnelSim::on_client(evconnlistener *, int fd, sockaddr *, int, void *self)
{
    auto *sim = (TunnelSim *)self;
    sim->update([sim] { sim->common().clients++; });
    sim->client_accepted(fd);
}
