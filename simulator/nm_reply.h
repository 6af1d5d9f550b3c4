// nm_reply.h - what NM answers: the good answer, or what a fault makes of it.
// A call takes what it hands out: a command, the wish for a restart, one of the times of a fault. The caller holds the
// instance's lock.
#pragma once

#include <string>

#include "nm_http.h"
#include "nm_state.h"

struct NmReply {
    std::string bytes;  // empty: nothing is sent
    std::string second; // sent 30 ms after bytes
    int delay_ms = 0;
    bool close = false;      // close the connection instead
    bool twice = false;      // datagrams
    bool stranger = false;   // datagrams: from the other port
    bool on_purpose = false; // a fault decided it
    std::string shown;       // for the printed line
};

NmReply nm_reply_request_locked(NmSim *nm, const std::string &name, const HttpRequest &request);
// serial: of the device that sent it.
NmReply nm_reply_datagram_locked(NmSim *nm, const std::string &serial);

// The fault in force for a request of that name or a new connection ("accept"); counts as one of its times.
NmFault nm_fault_take_locked(NmSim *nm, const std::string &name);
