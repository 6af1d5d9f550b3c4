// soak_log.h - what the soak prints, counts and finds wrong. Threads: any.
#pragma once

#include <string>

// Prints a line with the seconds since the first call in front.
void soak_say(const std::string &line);

// Prints and counts what is wrong.
void soak_problem(const std::string &text);
int soak_problems(); // so far

// Prints what as right, or as a problem.
void soak_check(bool holds, const std::string &what);

// Counts an event by name.
void soak_count(const std::string &name);
int soak_counted(const std::string &name);
std::string soak_counts(); // all names with their numbers
