// nm_view.h - reports as a person reads them.
#pragma once

#include <string>

// A table of a run status: usages and interfaces, these with their rates since the previous report ("" for none).
std::string nm_view_run_status(const std::string &body, const std::string &previous, long long elapsed_ms);

// One line for a record of the service report.
std::string nm_view_services(const std::string &body);
