// nm_view.h - reports as text for a person who watches. No state.
#pragma once

#include <string>

#include "nm_types.h"

// A run status as a table: usages, and interfaces with their rates since the previous report, elapsed_ms ago ("":
// none).
std::string nm_view_run_status(const std::string &body, const std::string &previous, long long elapsed_ms);

// One line for a service report.
std::string nm_view_services(const std::string &body);

// A request over HTTP and its answer as one line of JSON (method, path, headers, body, answer, on_purpose, wrong), for
// programs that read the transcript.
std::string nm_view_line(const NmRequest &request);
