// remote_telnet_internal.h - for tests.
#pragma once

// text is an "INIT" control message.
bool remote_telnet_is_init(const char *text);
