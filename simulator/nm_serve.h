// nm_serve.h - the sockets of NM: the HTTP(S) listener with its connections, and the detection channel. Loop thread.
#pragma once

#include "nm_state.h"

// Opens both, unless they are open, on the ports of the options, which receive the ports in force. False when one is
// taken; nm_serve_stop then closes the other.
bool nm_serve_start(NmSim *nm);
// Closes the connections and both sockets; started or not.
void nm_serve_stop(NmSim *nm);
// Resets the connections, keeps listening.
void nm_serve_drop(NmSim *nm);
