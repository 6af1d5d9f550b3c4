#include "nm_sim.h"

#include <chrono>
#include <cstdio>

#include "json_text.h"
#include "nm_sim_internal.h"
#include "nm_view.h"
#include "sim_tls.h"

static long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void nm_say(NmSim *nm, const std::string &line)
{
    if (nm->options.print)
        nm->options.print(line);
}

// One line for the request, then what its body tells to somebody who watches.
static void say_request(NmSim *nm, const NmRequest &request, const std::string &shown)
{
    const std::string what = request.name == "udp" ? "heartbeat over UDP" : request.line;
    nm_say(nm, what + " (" + std::to_string(request.body.size()) + " bytes, " +
                   (request.wrong.empty() ? "all right" : "WRONG: " + json_one_line(request.wrong, 600)) + ") -> " +
                   json_one_line(shown, 300));
    if (request.name == "runstatus") {
        nm_say(nm,
               nm_view_run_status(request.body, nm->last_run_status.body, request.at_ms - nm->last_run_status.at_ms));
        nm->last_run_status = request;
    } else if (request.name == "working/services") {
        nm_say(nm, nm_view_services(request.body));
    } else if (request.name != "udp" && request.name != "heartbeat" && request.name != "handshake") {
        nm_say(nm, "  " + json_one_line(request.body, 600));
    }
}

void nm_record(NmSim *nm, NmRequest request, const std::string &shown)
{
    request.time = sim_clock();
    request.at_ms = now_ms();
    if (nm->options.print)
        say_request(nm, request, shown);
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->counts[request.name]++;
    nm->transcript.push_back(std::move(request));
    nm->changed.notify_all();
}

NmSim *nm_sim_start(const NmOptions &options)
{
    NmSim *nm = new NmSim;
    nm->options = options;
    nm->ssl_context = options.https ? sim_tls_server() : nullptr;
    nm->loop = sim_loop_start();
    if (!nm_sim_return(nm)) {
        fprintf(stderr, "nm_sim: port %d or %d of %s is taken\n", nm->options.port, nm->options.udp_port,
                nm->options.ip.c_str());
        nm_sim_stop(nm);
        return nullptr;
    }
    return nm;
}

void nm_sim_stop(NmSim *nm)
{
    if (!nm)
        return;
    nm_sim_absent(nm);
    sim_loop_stop(nm->loop);
    SSL_CTX_free(nm->ssl_context);
    delete nm;
}

void nm_sim_absent(NmSim *nm)
{
    sim_loop_call(nm->loop, [nm] {
        nm_serve_stop(nm);
        nm_udp_stop(nm);
    });
}

bool nm_sim_return(NmSim *nm)
{
    bool ready = false;
    sim_loop_call(nm->loop, [nm, &ready] { ready = nm_serve_start(nm) && nm_udp_start(nm); });
    return ready;
}

void nm_sim_drop_connections(NmSim *nm)
{
    sim_loop_call(nm->loop, [nm] { nm_serve_drop(nm, true); });
}

int nm_sim_port(NmSim *nm)
{
    return nm->options.port;
}

int nm_sim_udp_port(NmSim *nm)
{
    return nm->options.udp_port;
}

bool nm_sim_https(NmSim *nm)
{
    return nm->options.https;
}

SimLoop *nm_sim_loop(NmSim *nm)
{
    return nm->loop;
}

void nm_sim_set_activation(NmSim *nm, const NmActivation &activation)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->activation = activation;
}

void nm_sim_set_fault(NmSim *nm, const std::string &name, const NmFault &fault)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->faults[name] = fault;
}

void nm_sim_clear_faults(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->faults.clear();
}

void nm_sim_queue(NmSim *nm, const std::string &command)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->commands.push_back(command);
}

int nm_sim_queued(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    return (int)nm->commands.size();
}

void nm_sim_ask_restart(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->restart_wanted = true;
}

static int count_locked(NmSim *nm, const std::string &name)
{
    const auto found = nm->counts.find(name);
    return found == nm->counts.end() ? 0 : found->second;
}

bool nm_sim_wait_for(NmSim *nm, const std::string &name, int count, int timeout_ms)
{
    std::unique_lock<std::mutex> guard(nm->lock);
    return nm->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                                [&] { return count_locked(nm, name) >= count; });
}

int nm_sim_count(NmSim *nm, const std::string &name)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    return count_locked(nm, name);
}

NmRequest nm_sim_request(NmSim *nm, const std::string &name, int index)
{
    NmRequest found;
    for (const NmRequest &request : nm_sim_transcript(nm)) {
        if (request.name == name) {
            found = request;
            if (index-- == 0)
                return found;
        }
    }
    return index < 0 ? found : NmRequest();
}

std::vector<NmRequest> nm_sim_transcript(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    return nm->transcript;
}

std::vector<NmRequest> nm_sim_take(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    std::vector<NmRequest> taken;
    taken.swap(nm->transcript);
    return taken;
}

std::string nm_sim_wrong(NmSim *nm)
{
    std::string wrong;
    for (const NmRequest &request : nm_sim_transcript(nm)) {
        if (!request.wrong.empty())
            wrong += request.time + " " + request.name + ": " + request.wrong + "\n";
    }
    return wrong;
}

int nm_sim_connections(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    return nm->conn_count;
}

bool nm_sim_wait_connections(NmSim *nm, int count, int timeout_ms)
{
    std::unique_lock<std::mutex> guard(nm->lock);
    return nm->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] { return nm->conn_count >= count; });
}
