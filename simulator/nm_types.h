// nm_types.h - what goes into a simulated NM and what comes out of it.
#pragma once

#include <string>
#include <vector>

#include "sim_loop.h"
#include "sim_tls.h"
#include "transcript.h"

struct NmOptions {
    bool https = false;
    SimTlsFiles tls; // of https
    std::string ip = "127.0.0.1";
    int port = 0;       // HTTP(S); 0: any free port
    int udp_port = 0;   // detection; 0: any free port
    std::string serial; // the one device served; empty: any
    SimPrint print;
};

// One request or datagram as received.
struct NmRequest {
    std::string name; // "active", "handshake", "working/services", ...; "device" for the bare path; "udp"; "?": foreign
    std::string line; // the request line; empty for a datagram
    std::vector<std::string> headers; // whole header lines in order
    std::string body;
    std::string time;    // sim_clock() of the arrival
    long long at_ms = 0; // monotonic_ms() of the arrival
    int conn = 0;        // the connection that brought it, counted from 1; 0 for a datagram
    std::string wrong;   // what is wrong with it, items joined with "; "; empty when nothing is
};

using NmTranscript = Transcript<NmRequest, &NmRequest::name>;

// How NM answers an activation.
struct NmActivation {
    int status = 200;        // 200; 201: the answer has a "result" for the device too; 304: redirection; other: refusal
    std::string error;       // of a refusal
    std::string redirect_ip; // of a 304; empty: a redirection that names no NM
    int redirect_port = 0;   // as sent; the device connects to the next port, with TLS
    std::string host;        // detection host in the answer; empty: this NM's ip
    int port = -2;           // detection port in the answer; -2: this NM's
};

enum NmFaultKind {
    NM_FAULT_NONE,
    NM_FAULT_SILENCE,      // takes the request and never answers
    NM_FAULT_REFUSE,       // {"status":500,"error":text}
    NM_FAULT_STATUS,       // HTTP status 404
    NM_FAULT_JUNK,         // bytes that are not HTTP
    NM_FAULT_CLOSE,        // closes the connection instead of answering
    NM_FAULT_HALF,         // the first half of the answer, then nothing
    NM_FAULT_TWO_SEGMENTS, // the answer in two sends, 30 ms apart
    NM_FAULT_LONG,         // a good answer with 4,000 more bytes, longer than a report's answer may be
    NM_FAULT_HTTP10,       // an HTTP/1.0 answer
    NM_FAULT_NO_JSON,      // 200 with a text that is not JSON
    NM_FAULT_EMPTY,        // 200 without a body
    NM_FAULT_CHUNKED,      // chunked transfer encoding
    NM_FAULT_BODY,         // text as the whole body of a 200 answer
    NM_FAULT_WORD,         // text as the heartbeat's result, over UDP as the datagram
    NM_FAULT_TWICE,        // UDP: the answer twice
    NM_FAULT_STRANGER,     // UDP: the answer from another port
};

struct NmFault {
    NmFaultKind kind = NM_FAULT_NONE;
    int delay_ms = 0; // before the answer, good or bad
    int times = -1;   // requests that it applies to; -1: until it is replaced or cleared
    std::string text;
};
