// nm_sim.h - NM as a device sees it: HTTP or HTTPS posts, the UDP detection channel, and commands handed out in answer
// to handshakes. Every request is checked on arrival (method, path, header lines and their order, signature, layout of
// the body) and recorded with what is wrong with it. Every answer is sent whole; faults can be switched on.
// Threads: each instance has a loop thread of its own; all calls below are for other threads.
#pragma once

#include <string>

#include "nm_types.h"

struct NmSim;

// Starts an instance. nullptr (with a message on stderr) when a port is taken or a file of the
// certificate cannot be used.
NmSim *nm_sim_start(const NmOptions &options);
void nm_sim_stop(NmSim *nm); // closes everything and frees it; nullptr is allowed

int nm_sim_port(NmSim *nm);
int nm_sim_udp_port(NmSim *nm);
bool nm_sim_is_https(NmSim *nm);
const SimTlsFiles &nm_sim_tls(NmSim *nm);

void nm_sim_set_activation(NmSim *nm, const NmActivation &activation);

// Sets what happens to requests of that name: "" for every HTTP request without a fault of its own, "udp" for
// datagrams, "accept" with NM_FAULT_SILENCE for connections that are accepted and never read (so TLS never starts).
void nm_sim_set_fault(NmSim *nm, const std::string &name, const NmFault &fault);
void nm_sim_clear_faults(NmSim *nm);

void nm_sim_absent(NmSim *nm);           // closes sockets and connections
bool nm_sim_return(NmSim *nm);           // opens them again on the same ports; false when one is taken
void nm_sim_drop_connections(NmSim *nm); // resets all connections, keeps listening

// Queues a command (JSON text). While one is queued heartbeats are answered "ack"; each handshake takes one.
void nm_sim_queue(NmSim *nm, const std::string &command);
int nm_sim_queued(NmSim *nm);
// Answers the next heartbeat, over either channel, with "rec".
void nm_sim_ask_restart(NmSim *nm);

// The requests and datagrams received; the instance owns the transcript.
NmTranscript &nm_sim_transcript(NmSim *nm);
// The transcript's calls of these names.
bool nm_sim_wait_for(NmSim *nm, const std::string &name, int count, int timeout_ms);
int nm_sim_count(NmSim *nm, const std::string &name);
NmRequest nm_sim_request(NmSim *nm, const std::string &name, int index);
std::string nm_sim_wrong(NmSim *nm);

int nm_sim_connections(NmSim *nm); // accepted so far
bool nm_sim_wait_connections(NmSim *nm, int count, int timeout_ms);
