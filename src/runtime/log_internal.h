// log_internal.h - for tests and proxy_pluginctl; the linker drops it from the agent.
#pragma once

// From now on every line of the calls goes to sink, whatever the level: priority is that of syslog(3), line the text
// without time and level. Null: back to the log. One thread.
typedef void (*LogSink)(int priority, const char *line);
void log_sink_set(LogSink sink);
