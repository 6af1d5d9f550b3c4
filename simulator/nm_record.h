// nm_record.h - what NM has received: the lines printed about it, and the transcript. Loop thread, lock not held.
#pragma once

#include <string>

#include "nm_state.h"

void nm_say(NmSim *nm, const std::string &line);

// Prints the request and what was answered (shown), stamps the request with the time and adds it to the transcript.
void nm_record(NmSim *nm, NmRequest request, const std::string &shown);
