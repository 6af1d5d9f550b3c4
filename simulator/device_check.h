// device_check.h - checks the frames that the agent sends to the device. No state.
#pragma once

#include <string>

// What is wrong with a frame's text; "" when nothing is. *type: its "type", "" without one. Messages of the agent
// itself have a fixed layout; every other type is a command that NM has sent, in one line of JSON without blanks.
std::string device_check_frame(const std::string &text, std::string *type);
