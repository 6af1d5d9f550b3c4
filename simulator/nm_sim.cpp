#include "nm_sim.h"

#include <stdio.h>

#include "nm_serve.h"
#include "nm_state.h"
#include "sim_socket.h"
#include "sim_tls.h"

NmSim *nm_sim_start(const NmOptions &options)
{
    NmSim *nm = new NmSim;
    nm->options = options;
    nm->ssl_context = options.https ? sim_tls_server(options.tls) : nullptr;
    nm->loop = sim_loop_start();
    if (options.https && !nm->ssl_context) {
        nm_sim_stop(nm);
        return nullptr;
    }
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
    sim_hold_end(&nm->held);
    SSL_CTX_free(nm->ssl_context);
    delete nm;
}

void nm_sim_absent(NmSim *nm)
{
    sim_loop_call(nm->loop, [nm] {
        nm_serve_stop(nm);
        if (nm->held < 0)
            nm->held = sim_hold_tcp(nm->options.ip, nm->options.port);
    });
}

bool nm_sim_return(NmSim *nm)
{
    bool ready = false;
    sim_loop_call(nm->loop, [nm, &ready] {
        ready = nm_serve_start(nm);
        sim_hold_end(&nm->held);
    });
    return ready;
}

void nm_sim_drop_connections(NmSim *nm)
{
    sim_loop_call(nm->loop, [nm] { nm_serve_drop(nm); });
}

int nm_sim_port(NmSim *nm)
{
    return nm->options.port;
}

int nm_sim_udp_port(NmSim *nm)
{
    return nm->options.udp_port;
}

bool nm_sim_is_https(NmSim *nm)
{
    return nm->options.https;
}

const SimTlsFiles &nm_sim_tls(NmSim *nm)
{
    return nm->options.tls;
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

NmFault nm_sim_fault(NmSim *nm, const std::string &name)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    auto found = nm->faults.find(name);
    return found == nm->faults.end() ? NmFault() : found->second;
}

void nm_sim_queue(NmSim *nm, const std::string &command, const std::string &serial)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->devices[serial].commands.push_back(command);
}

int nm_sim_queued(NmSim *nm)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    int count = 0;
    for (const auto &device : nm->devices)
        count += (int)device.second.commands.size();
    return count;
}

void nm_sim_ask_restart(NmSim *nm, const std::string &serial)
{
    std::lock_guard<std::mutex> guard(nm->lock);
    nm->devices[serial].restart_wanted = true;
}

NmTranscript &nm_sim_transcript(NmSim *nm)
{
    return nm->transcript;
}

bool nm_sim_wait_for(NmSim *nm, const std::string &name, int count, int timeout_ms)
{
    return nm->transcript.wait_for(name, count, timeout_ms);
}

int nm_sim_count(NmSim *nm, const std::string &name)
{
    return nm->transcript.count(name);
}

NmRequest nm_sim_request(NmSim *nm, const std::string &name, int index)
{
    return nm->transcript.at(name, index);
}

std::string nm_sim_wrong(NmSim *nm)
{
    return nm->transcript.wrong();
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
