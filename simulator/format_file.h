// format_file.h - what the documents show and the tests read: the example files of the wire formats (docs/formats) and
// tables of inputs and what the agent makes of them (docs/examples). No state.
#pragma once

#include <string>
#include <vector>

// docs/formats: a line holds bytes in hexadecimal, two digits each, and texts between double quotes, in which \r, \n,
// \t, \0, \" and \\ stand for one byte; # begins a comment.

// The bytes that such a text stands for. False at the first thing that is neither; *bytes: those before it.
bool format_parse(const std::string &text, std::string *bytes);

// The bytes of one file. "" (with a message on stderr) when it cannot be read or parsed.
std::string format_read(const std::string &path);

// docs/examples: the rows of all tables of a Markdown file, without their headers, cell by cell. A cell is plain text
// or one code span, in which \r, \n, \t, \0, \\ and \| stand for one byte, as does \x with two hexadecimal digits; any
// other backslash stands for itself. Blanks around a cell do not count. Empty (with a message on stderr) when the file
// cannot be read, has no row, or has one with a cell too many or too few.
std::vector<std::vector<std::string>> format_table(const std::string &path);
