// nm_commands.h - the commands of nm_simulator, for its command line and for the workbench. No state.
#pragma once

#include <string>
#include <vector>

#include "console.h"
#include "nm_sim.h"
#include "nm_tunnels.h"

struct NmTarget {
    NmSim *nm;
    NmTunnels *tunnels;
    std::string serial; // the device that commands are for; "": the one that asks first, for tunnels the newest
};

// What NM hands out to a device. Any thread, one at a time for each target.
std::vector<ConsoleCommand> nm_commands_device(NmTarget *target);
// What NM itself does. Main thread.
std::vector<ConsoleCommand> nm_commands_own(NmTarget *target);

// The word that "misbehave" was given last, unless a fault was set since; "none" when NM answers as agreed.
std::string nm_commands_misbehaviour(NmSim *nm);
