// sim_loop.h - one libevent loop on a thread of its own, and the ways into it from other threads.
// A simulator's sockets belong to its loop: callbacks run there, one at a time. Everybody else goes through
// sim_loop_call.
#pragma once

#include <functional>
#include <string>

struct event_base;
struct SimLoop;

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

// A listening or bound socket on ip, port 0 for any free one; the port in force goes to *port. Non-blocking.
// -1 when the address is taken or is none.
int sim_listen_tcp(const std::string &ip, int *port);
int sim_bind_udp(const std::string &ip, int *port);

// "14:03:07.042", local time.
std::string sim_clock();
