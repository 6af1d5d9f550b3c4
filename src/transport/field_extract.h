// field_extract.h - single values out of message texts: by POSIX regular expression, or from a cJSON tree.
// All copy into the caller's bounded buffer, NUL-ended, and log what they found. Any thread; no state.
// regex_extract belongs here too; it stands in runtime because the log files need it as well.
#pragma once

#include <cjson/cJSON.h>
#include <stddef.h>
#include <stdint.h>

#include "runtime/regex_extract.h"

// Value of a key in text that resembles JSON, by regular expression: numbers, literals and strings without blanks.
// value is zeroed first and stays so without a match, or when the value does not fit into value_cap or 512 bytes.
void json_key_extract(const char *msg, const char *key, char *value, size_t value_cap);

// String or integer member, key compared ignoring case. 0, or -1 (logged). A string that does not fit is truncated, buf
// is zeroed first; a number saturates, *value stays as it was on failure.
int json_get_string(const cJSON *object, const char *key, char *buf, size_t buf_cap);
int json_get_int(const cJSON *object, const char *key, int32_t *value);

// cJSON_Parse that logs the position of a syntax error, "Error before JSON content: %s", without process-wide state.
// Returns the tree, which the caller frees with cJSON_Delete; null on failure.
cJSON *json_parse_logged(const char *text);
