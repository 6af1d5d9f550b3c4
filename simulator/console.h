// console.h - typed lines and scripts of the two simulator programs.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct ConsoleLine {
    std::vector<std::string> words; // behind the command's own word
    std::string rest;               // the same as one text, for JSON

    // The words as numbers and texts, with a value for missing ones.
    int number(size_t index, int missing) const;
    std::string word(size_t index, const std::string &missing = "") const;
};

struct ConsoleCommand {
    const char *word;
    const char *arguments; // for the help text
    const char *help;
    std::function<std::string(const ConsoleLine &line)> run; // returns what is wrong, "" when done
};

// Blocks the stop signals for this thread and those started later; call first of all in main.
void console_init();

// Prints a line with the local time in front. Any thread.
void console_print(const std::string &line);

// Runs the lines of the script (none for ""), then those typed, until "quit", SIGINT or SIGTERM; the end of the input
// alone ends nothing. "help", "sleep MS" and "quit" are known to all. Returns the exit status: 1 when a line of the
// script failed.
int console_run(const std::vector<ConsoleCommand> &commands, const std::string &script);

// The value behind an option ("--port", "8080"), missing when it is not given.
std::string option_text(int argc, char **argv, const std::string &name, const std::string &missing);
int option_number(int argc, char **argv, const std::string &name, int missing);
bool option_given(int argc, char **argv, const std::string &name);
