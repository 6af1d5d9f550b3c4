// soak_state.h - what all parts of the soak share. Threads: any.
#pragma once

#include <atomic>
#include <poll.h>
#include <random>

#include "tunnel_stage.h"

using Random = std::mt19937;

struct SoakState {
    TunnelStage *stage = nullptr;    // set before the threads start
    std::atomic<bool> traffic{true}; // false: device and clients finish what they do, then their threads end
    std::atomic<int> epoch{1};       // odd: calm; even: a fault is in force, or the agent has not recovered from it yet
};

inline SoakState g_soak;

// Whether there has been no fault since epoch was read: what was done in between has to be complete.
inline bool soak_is_calm_since(int epoch)
{
    return epoch % 2 == 1 && g_soak.epoch == epoch;
}

inline void soak_pause(int ms)
{
    poll(nullptr, 0, ms);
}

// A number from from to to, both included.
inline int soak_pick(Random *random, int from, int to)
{
    return std::uniform_int_distribution<int>(from, to)(*random);
}
