// console_page.h - the workbench: a page for a browser on this machine that shows what NM receives and hands out
// commands. It listens on 127.0.0.1 and refuses requests made under another host name or by pages of other origins.
// Threads: it has a loop thread of its own; the calls below are for other threads.
#pragma once

#include "nm_commands.h"

struct ConsolePage;

ConsolePage *console_page_new();
// Opens the port (0: any free one) and prints the address. False (with a message) when the port is taken or a file of
// the page is missing.
bool console_page_serve(ConsolePage *page, int port, NmSim *nm, NmTunnels *tunnels);
// Closes the port and the connections; NM may still report requests until console_page_free. nullptr is allowed.
void console_page_stop(ConsolePage *page);
void console_page_free(ConsolePage *page);

// For NmOptions.watch; also before console_page_serve.
void console_page_request(ConsolePage *page, const NmRequest &request);
