// sim_loop.h - one libevent loop on a thread of its own, and the ways into it from other threads.
// A simulator's sockets belong to its loop: callbacks run there, one at a time. Everybody else goes through
// sim_loop_call.
#pragma once

#include <functional>
#include <string>

struct event_base;
struct SimLoop;

// Takes a line for each event of a simulator, on its loop thread; empty: nothing is printed.
using SimPrint = std::function<void(const std::string &line)>;

// Starts the thread. Never null: a loop that cannot start ends the program with a message.
SimLoop *sim_loop_start();

// Ends the thread and frees the loop; functions still waiting for their time are dropped. Events and bufferevents of
// the owner must be freed before, with sim_loop_call. Not from the loop thread.
void sim_loop_stop(SimLoop *loop);

event_base *sim_loop_base(SimLoop *loop);

// Runs fn on the loop thread and returns when it is done. On the loop thread itself: runs it at once.
void sim_loop_call(SimLoop *loop, const std::function<void()> &fn);

// Runs fn on the loop thread after delay_ms (0: on the next turn). Any thread.
void sim_loop_after(SimLoop *loop, int delay_ms, std::function<void()> fn);

// "14:03:07.042", local time.
std::string sim_clock();

long long monotonic_ms();
