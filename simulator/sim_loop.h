// sim_loop.h - a libevent loop on a thread of its own, and the calls into it from other threads.
// A simulator's sockets belong to its loop: callbacks run there, one at a time. Other threads use sim_loop_call.
#pragma once

#include <functional>
#include <string>

struct event_base;
struct SimLoop;

// Takes a line for each event of a simulator, on its loop thread; empty: nothing is printed.
using SimPrint = std::function<void(const std::string &line)>;

// Starts the thread, and ignores SIGPIPE. Never null: when it fails the program aborts with a message.
SimLoop *sim_loop_start();

// Ends the thread and frees the loop; functions whose delay has not passed are not run. The owner has freed its events
// and connections before, in sim_loop_call. Not from the loop thread.
void sim_loop_stop(SimLoop *loop);

event_base *sim_loop_base(SimLoop *loop);

// Runs fn on the loop thread and returns when it has returned. Any thread; on the loop thread itself, a plain call.
void sim_loop_call(SimLoop *loop, const std::function<void()> &fn);

// Runs fn on the loop thread after delay_ms. Returns at once. Any thread.
void sim_loop_after(SimLoop *loop, int delay_ms, std::function<void()> fn);

// "14:03:07.042", local time.
std::string sim_clock();

long long monotonic_ms();
