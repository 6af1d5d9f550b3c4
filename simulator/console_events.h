// console_events.h - the stream of server-sent events from which the workbench builds its page. Each event is one JSON
// object with a member "kind". Loop thread, unless stated.
#pragma once

#include <string>

#include "nm_types.h"

struct ConsoleEvents;
struct evhttp_request;

// The loop is the caller's.
ConsoleEvents *console_events_new(SimLoop *loop);
void console_events_end(ConsoleEvents *events);  // ends the streams; requests may still come
void console_events_free(ConsoleEvents *events); // after the loop has stopped

// Begins a stream: "hello", the newest requests, the latest of each state, then whatever comes. Owns the request.
void console_events_join(ConsoleEvents *events, evhttp_request *request);

// A request or datagram, kind "request"; kept for those who join later. Any thread.
void console_events_request(ConsoleEvents *events, const NmRequest &request);
// A state, kind as named; value is JSON. Sent when it differs from the latest of its kind.
void console_events_state(ConsoleEvents *events, const std::string &kind, const std::string &value);
// What a device's terminal has received, kind "terminal", not kept; open: the session goes on.
void console_events_terminal(ConsoleEvents *events, const std::string &serial, const std::string &bytes, bool open);
