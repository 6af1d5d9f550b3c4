// format_file.h - the example files of the wire formats (docs/formats). A line holds bytes in hexadecimal, two digits
// each, and texts between double quotes, in which \r, \n, \t, \0, \" and \\ stand for one byte; # begins a comment. No
// state.
#pragma once

#include <string>

// The bytes that such a text stands for. False at the first thing that is neither; *bytes: those before it.
bool format_parse(const std::string &text, std::string *bytes);

// The bytes of one file. "" (with a message on stderr) when it cannot be read or parsed.
std::string format_read(const std::string &path);
