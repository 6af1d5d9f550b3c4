// nm_msg.h - NM's commands: the table from type to handler, extracting the command from an answer, and the handlers
// that need no module of their own. Commands run on the thread that made the handshake and may overlap.
#pragma once

#include <stdint.h>

typedef int (*NmMsgHandler)(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// Adds one type to the first free of the 64 entries of the table. 0, or -1 (logged) when it is full. Start-up; the
// table is only read afterwards.
int nm_msg_register(const char *type, NmMsgHandler handler, const char *handler_name);

// Runs the command of an NM answer. 0 on success and for an empty payload, -1 (logged) for a bad answer or an unknown
// type, else the handler's result.
int nm_msg_process(uintptr_t context, const char *answer);

// Handlers: pass the command on to the device as one frame (always 0); post the device's or the ports' status file
// (0 once the file was read, else -1).
int nm_msg_forwarding(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
int nm_dev_query_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
int nm_port_query_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
