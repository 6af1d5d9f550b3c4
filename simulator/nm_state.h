// nm_state.h - one instance of the simulated NM, shared by nm_serve (sockets), nm_reply (answers), nm_record
// (transcript) and nm_sim (the calls from other threads). Nobody else includes it.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <openssl/ssl.h>
#include <string>

#include "nm_types.h"

struct bufferevent;
struct evconnlistener;
struct event;
struct NmConn;

// What NM keeps for one device.
struct NmDevice {
    std::deque<std::string> commands;
    bool restart_wanted = false;
};

struct NmSim {
    NmOptions options; // port and udp_port: those in force
    SimLoop *loop = nullptr;
    SSL_CTX *ssl_context = nullptr; // nullptr: plain HTTP

    // Loop thread only.
    evconnlistener *listener = nullptr;
    int held = -1;                 // the TCP port, while NM is absent
    std::map<int, NmConn *> conns; // by number
    int udp = -1;
    int udp_stranger = -1; // the same ip, another port
    event *udp_event = nullptr;
    std::map<std::string, NmRequest> last_run_status; // by serial number

    NmTranscript transcript;

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    NmActivation activation;
    std::map<std::string, NmFault> faults;
    std::map<std::string, NmDevice> devices; // by serial number; "": for the device that asks first
    int conn_count = 0;                      // connections accepted so far
};
