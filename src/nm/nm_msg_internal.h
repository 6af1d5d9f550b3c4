// nm_msg_internal.h - the steps of nm_msg_process, for tests.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t NM_PAYLOAD_SIZE = 5120; // a command is at most one byte shorter

// Prints the command in NM's answer (the last child of "payload") into buf, which stays untouched without one, and its
// length into *payload_len unless that is null. 0, or -1 (logged).
int nm_payload_extract(const char *answer, char *buf, size_t buf_cap, uint32_t *payload_len);

// Copies the payload's "type" into buf, which stays untouched without one. 0, or -1 (logged).
int nm_msg_type_parse(const char *payload, char *buf, size_t buf_cap);
