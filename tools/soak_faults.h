// soak_faults.h - the faults of the soak, one after the other, and the way back from each.
#pragma once

#include <string>

// Until end_ms (monotonic_ms): every kind of fault in turn, in a random order, each followed by a calm time. After each
// the agent has to be online again and pass a command on. only: kinds with this text in their names; "" for all.
// A thread of its own.
void faults_run(unsigned seed, long long end_ms, const std::string &only);

// Queues NM's commands that shorten the periods of heartbeats and reports. Every bring-up resets them.
void faults_set_periods();
