// nm_sim_internal.h - what the files of nm_sim share.
#pragma once

#include <openssl/ssl.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "nm_http.h"
#include "nm_sim.h"

struct bufferevent;
struct evconnlistener;
struct event;

struct NmConn {
    NmSim *nm;
    int id;
    bufferevent *bev;
};

struct NmSim {
    NmOptions options; // port and udp_port: those in force
    SimLoop *loop = nullptr;
    SSL_CTX *ssl_context = nullptr; // null: plain HTTP

    // Loop thread only.
    evconnlistener *listener = nullptr;
    std::map<int, NmConn *> conns;
    int udp = -1;
    int udp_stranger = -1; // the same ip, another port
    event *udp_event = nullptr;
    NmRequest last_run_status;

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    NmActivation activation;
    std::map<std::string, NmFault> faults;
    std::deque<std::string> commands;
    bool restart_wanted = false;
    std::vector<NmRequest> transcript;
    std::map<std::string, int> counts; // requests so far, by name
    int conn_count = 0;
};

// What is done about one request. Nothing is sent when bytes is empty.
struct NmReply {
    std::string bytes;
    std::string second; // sent 30 ms after bytes
    int delay_ms = 0;
    bool close = false;
    bool twice = false;    // datagrams
    bool stranger = false; // datagrams
    std::string shown;     // for the event's line
};

// Decide, and use up faults, commands and the wish for a restart. Caller holds the lock.
NmReply nm_reply_request_locked(NmSim *nm, const std::string &name, const HttpRequest &request);
NmReply nm_reply_datagram_locked(NmSim *nm);
// The fault in force for a name, used up by one.
NmFault nm_fault_take_locked(NmSim *nm, const std::string &name);

// Keeps a request in the transcript and says it. Loop thread, lock not held.
void nm_record(NmSim *nm, NmRequest request, const std::string &shown);
void nm_say(NmSim *nm, const std::string &line);

// The sockets. Loop thread.
bool nm_serve_start(NmSim *nm);
void nm_serve_stop(NmSim *nm);
void nm_serve_drop(NmSim *nm, bool reset);
bool nm_udp_start(NmSim *nm);
void nm_udp_stop(NmSim *nm);
