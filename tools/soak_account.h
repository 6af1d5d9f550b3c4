// soak_account.h - the account of every result that the device has sent, and what the device has last been told.
//
// The rule: each result (or alarm) of the device gets one ack. An ack with true is right only if NM has received the
// result byte for byte; one with false ends the matter. NM receives nothing twice. A result without an ack when a fault
// closes the device link is excused: it may stay without one, or be lost; such losses are counted apart.
// Threads: any; account_update one at a time.
#pragma once

#include <functional>
#include <string>

// Sends the frame and enters its result: number stands in it, NM has to receive body on the path that ends in name.
// Does nothing while the agent is not synchronised.
void account_send(int number, const std::string &name, const std::string &body, const std::string &frame);

// Takes what both simulators have recorded into the account and checks it.
void account_update();

// Results that still have to get an ack.
int account_waiting();

// Excuses the results that wait for an ack and calls disconnect, which closes the device link; nothing is sent in
// between. The agent is not synchronised from then on.
void account_disconnect(const std::function<void()> &disconnect);

// False while the agent may wait for the rest of a frame that a fault has cut off, and take what follows for it.
bool account_is_synchronised();
void account_set_synchronised();

bool account_is_online();                             // what the device was told last
bool account_has_command(const std::string &session); // whether this is the last command that the device has received

// Checks every result against the rule; at the end, when no more acks are to come.
void account_judge();
