// device_check.h - the device's judgement of the frames that the agent sends.
#pragma once

#include <string>

// What is wrong with a frame's text, items joined with "; "; empty when it is right. *type: its "type", "" without one.
// A type that is none of the agent's own messages is a command of NM handed on: one line of JSON without blanks.
std::string device_check_frame(const std::string &text, std::string *type);
