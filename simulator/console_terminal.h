// console_terminal.h - the workbench's telnet clients, one for each device: they connect to the local port of its
// remote-telnet tunnel and answer the telnet options, so that the page gets plain terminal bytes. Loop thread.
#pragma once

#include <string>

#include "console_events.h"

struct ConsoleTerminals;

// What the devices send goes to events as kind "terminal".
ConsoleTerminals *console_terminals_new(SimLoop *loop, ConsoleEvents *events);
void console_terminals_free(ConsoleTerminals *terminals);

// Connects to that port of 127.0.0.1; a session that the device had before is closed.
void console_terminals_open(ConsoleTerminals *terminals, const std::string &serial, int port);
// Sends what was typed. False when the device has no session.
bool console_terminals_type(ConsoleTerminals *terminals, const std::string &serial, const std::string &keys);
