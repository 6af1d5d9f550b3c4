// agent_state.h - what the agent shows of itself: collected from the modules, printed as the state file and as a line.
// Thread of the monitor only.
#pragma once

#include <stdint.h>

#include "device/dma_status.h"
#include "nm/device_init.h"
#include "nm/heartbeat.h"
#include "remote/tunnel.h"
#include "runtime/plugin_info.h"
#include "runtime/thread_watch.h"
#include "transport/nm_post.h"

enum SessionState { SESSION_WAITING, SESSION_PASS, SESSION_ONLINE };

// What a reader wants to hear of as soon as it changes. Zeroed before it is filled: compared byte by byte.
struct AgentFacts {
    SessionState session;
    char dma_status[40];
    char dma_cause[DMA_CAUSE_SIZE];
    uint32_t failed_passes; // in a row
    char nm_method[16];
    char nm_ip[IP_TEXT_SIZE];
    char nm_port[PORT_TEXT_SIZE];
    bool is_nm_redirected;
    HeartbeatFacts heartbeat;
    bool is_device_connected;
    char device_ip[IP_TEXT_SIZE];
    char device_port[PORT_TEXT_SIZE];
    TunnelFacts web;
    TunnelFacts telnet;
    PostFacts posts;
    bool is_service_reporting;
    char stuck[WATCHED_NAME_SIZE]; // the thread that is; "": none
};

// What changes by itself as time goes by.
struct AgentState {
    AgentFacts facts;
    int64_t now_ms;   // of the collection, on the monotonic clock
    int next_pass_ms; // -1: none is armed
    WatchedThread threads[WATCHED_THREADS_MAX];
    int thread_count;
};

// A thread that has been in one unit of work for longer than stuck_s is stuck.
void agent_state_collect(AgentState *state, int32_t stuck_s);

// The state as the text of one JSON object, in the form of docs/state-file.md: freed by the caller with free; null
// without memory. begin_ms is the start of the process, on the monotonic clock.
char *agent_state_json(const AgentState *state, int64_t begin_ms);

// The facts in a line for a person, truncated to the field.
constexpr int AGENT_LINE_SIZE = 256;
void agent_state_line(const AgentFacts *facts, char (&line)[AGENT_LINE_SIZE]);
