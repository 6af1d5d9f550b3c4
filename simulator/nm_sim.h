// nm_sim.h - NM as a device sees it: HTTP or HTTPS posts, the UDP detection channel, commands handed out by handshake.
// Every request is checked when it comes (method, path, header lines and their order, signature, layout of the body)
// and kept with what was wrong about it. Every answer leaves in one send. On request it misbehaves. Threads: each
// instance has a loop thread of its own; all calls below may come from any other thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sim_loop.h"

struct NmOptions {
    bool https = false;
    std::string ip = "127.0.0.1";
    int port = 0;       // HTTP(S); 0: any free port
    int udp_port = 0;   // detection; 0: any free port
    std::string serial; // the one device served; empty: any
    std::function<void(const std::string &line)>
        print; // called on the loop thread for each event; empty: nothing is said
};

// One request or datagram as it came.
struct NmRequest {
    std::string name; // "active", "handshake", "working/services", ...; "device" for the bare path; "udp"
    std::string line; // the request line; empty for a datagram
    std::vector<std::string> headers; // whole header lines in order
    std::string body;
    std::string time;    // sim_clock() of the arrival
    long long at_ms = 0; // monotonic clock
    int conn = 0;        // which connection brought it, counted from 1
    std::string wrong;   // what is wrong with it, items joined with "; "; empty when all is right
};

// How NM answers an activation.
struct NmActivation {
    int status = 200;        // 200; 201: "result" is also meant for the device; 304: move to redirect; else a refusal
    std::string error;       // of a refusal
    std::string redirect_ip; // of a 304; empty: a redirection that names no NM
    int redirect_port = 0;   // as sent: the device goes to the next port, over TLS
    std::string host;        // detection host to tell; empty: the ip of this NM
    int port = -2;           // detection port to tell; -2: the one in force
};

enum NmFaultKind {
    NM_FAULT_NONE,
    NM_FAULT_SILENCE,      // takes the request and never answers
    NM_FAULT_REFUSE,       // {"status":500,"error":text}
    NM_FAULT_STATUS,       // HTTP status 404
    NM_FAULT_JUNK,         // bytes that are no HTTP
    NM_FAULT_CLOSE,        // closes instead of an answer
    NM_FAULT_HALF,         // the first half of the answer, then nothing
    NM_FAULT_TWO_SEGMENTS, // the answer in two sends, 30 ms apart
    NM_FAULT_LONG,         // a good answer of 4,000 bytes, longer than a report's answer may be
    NM_FAULT_HTTP10,       // an HTTP/1.0 answer
    NM_FAULT_NO_JSON,      // 200 with a text that is no JSON
    NM_FAULT_EMPTY,        // 200 without a body
    NM_FAULT_CHUNKED,      // chunked transfer encoding
    NM_FAULT_BODY,         // text as the whole body of a 200 answer
    NM_FAULT_WORD,         // text in place of the heartbeat's word, over UDP as the datagram; not used up by itself
    NM_FAULT_TWICE,        // UDP: the answer twice
    NM_FAULT_STRANGER,     // UDP: the answer from another port
};

struct NmFault {
    NmFaultKind kind = NM_FAULT_NONE;
    int delay_ms = 0; // before the answer, good or bad
    int times = -1;   // requests it holds for; -1: until replaced
    std::string text;
};

struct NmSim;

// Starts an instance. nullptr (with a message on stderr) when a port is taken.
NmSim *nm_sim_start(const NmOptions &options);
void nm_sim_stop(NmSim *nm);

int nm_sim_port(NmSim *nm);
int nm_sim_udp_port(NmSim *nm);
bool nm_sim_https(NmSim *nm);
SimLoop *nm_sim_loop(NmSim *nm); // for the NM side of the tunnels

void nm_sim_set_activation(NmSim *nm, const NmActivation &activation);

// Sets what happens to requests of that name ("" for every HTTP name without a fault of its own, "udp" for datagrams,
// "accept" with NM_FAULT_SILENCE for connections that are accepted and never served, so that TLS never starts).
void nm_sim_set_fault(NmSim *nm, const std::string &name, const NmFault &fault);
void nm_sim_clear_faults(NmSim *nm);

// Closes what listens and what is connected, and opens it again on the same ports.
void nm_sim_absent(NmSim *nm);
bool nm_sim_return(NmSim *nm);
// Resets all connections in force, keeps listening.
void nm_sim_drop_connections(NmSim *nm);

// Puts a command (JSON text) into the line: heartbeats are answered "ack" until a handshake has taken it away.
void nm_sim_queue(NmSim *nm, const std::string &command);
int nm_sim_queued(NmSim *nm);
// Answers the next heartbeat, over either channel, with "rec".
void nm_sim_ask_restart(NmSim *nm);

// Waits until count requests of that name have come since the start. False after timeout_ms.
bool nm_sim_wait_for(NmSim *nm, const std::string &name, int count, int timeout_ms);
int nm_sim_count(NmSim *nm, const std::string &name);
// The index-th (from 0) request of that name; the last one for -1. An empty record when there is none.
NmRequest nm_sim_request(NmSim *nm, const std::string &name, int index);
std::vector<NmRequest> nm_sim_transcript(NmSim *nm);
// Moves the records out, for runs of many hours; the counts above go on, everything below looks at later records only.
std::vector<NmRequest> nm_sim_take(NmSim *nm);
// Everything found wrong so far, one line each; empty when all was right.
std::string nm_sim_wrong(NmSim *nm);
int nm_sim_connections(NmSim *nm); // accepted so far
bool nm_sim_wait_connections(NmSim *nm, int count, int timeout_ms);
