// nm_msg.h - NM's commands: the table from type to handler, cutting the command out of an answer, and the handlers that
// need no module of their own. Commands run on the thread that made the handshake and may overlap.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t NM_PAYLOAD_SIZE = 5120; // a command is at most one byte shorter
constexpr size_t NM_TYPE_SIZE = 512;

typedef int (*NmMsgHandler)(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);

// Fills the table and makes the two mutexes (this one and dev_msg_mutex). Start-up, before any NM traffic; the table is
// only read afterwards. dev_msg_recv_init's result.
int nm_msg_table_init(void);

// Adds one type to the first free of the 64 entries. 0, or -1 (logged) when the table is full.
int nm_msg_register(const char *type, NmMsgHandler handler, const char *handler_name);

// Runs the command of an NM answer. 0 on success and for an empty payload, -1 (logged) for a bad answer or an unknown
// type, else the handler's result.
int nm_msg_process(uintptr_t context, const char *answer);

// The payload's text (the last child's of "payload"), untouched buffer when there is none. 0, or -1 (logged).
int nm_payload_extract(const char *answer, char *buf, size_t buf_cap, uint32_t *payload_len);

// The payload's "type", empty when there is none. 0, or -1 (logged).
int nm_msg_type_parse(const char *payload, char *buf, size_t buf_cap);

// Handlers: pass the command on to the device as one frame (always 0); post the device's or the ports' status file
// (0 once the file was read, else -1).
int nm_msg_forwarding(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
int nm_dev_query_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
int nm_port_query_handle(uintptr_t context, const char *answer, const char *payload, uint32_t payload_len);
