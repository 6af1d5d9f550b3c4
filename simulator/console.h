// console.h - the command line, typed lines and scripts of the two simulator programs. Main thread, unless stated.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct ConsoleLine {
    std::vector<std::string> words; // after the command's own word
    std::string rest;               // the same as one text, for JSON

    // The index-th word as a number or a text; missing when there are fewer.
    int number(size_t index, int missing) const;
    std::string word(size_t index, const std::string &missing = "") const;
};

struct ConsoleCommand {
    const char *word;
    const char *arguments; // for the help text
    const char *help;
    std::function<std::string(const ConsoleLine &line)> run; // returns what is wrong, "" when done
};

// The run of a command that cannot fail.
std::function<std::string(const ConsoleLine &line)> console_plain(std::function<void(const ConsoleLine &line)> fn);

// Blocks SIGINT and SIGTERM for this thread and those started later, and ignores SIGPIPE. Call it first in main.
void console_init();

// Prints a line with the local time in front. Any thread.
void console_print(const std::string &line);

// Runs the lines of the script ("": none), then those of the standard input, until "quit", SIGINT or SIGTERM; the end
// of the input alone does not end it. "help", "sleep MS" and "quit" are built in. Returns the exit status: 1 when the
// script cannot be read or a line of it fails.
int console_run(const std::vector<std::vector<ConsoleCommand>> &groups, const std::string &script);

// Runs one line by the table, without the words that are built in. Returns what is wrong, "" when done. Any thread that
// the command may run on.
std::string console_run_line(const std::vector<ConsoleCommand> &commands, const std::string &text);

// The value of an option ("--port 8080"), missing when it is not given; and whether it is given.
std::string console_option(int argc, char **argv, const std::string &name, const std::string &missing);
int console_option_number(int argc, char **argv, const std::string &name, int missing);
bool console_has_option(int argc, char **argv, const std::string &name);
