// field_extract.h - single values out of message texts: by POSIX regular expression, or from a cJSON tree.
// All copy into the caller's bounded buffer, NUL-ended, and log what they found. Any thread; no state.
#pragma once

#include <cjson/cJSON.h>
#include <stddef.h>
#include <stdint.h>

// Group 1 of the extended regular expression. 0 found (or a match without a group 1, empty value); 1 no match; a
// regcomp error code; -1 for a missing argument or a value that does not fit.
int regex_extract(const char *msg, const char *regex, char *value, size_t value_cap);

// Value of a key in JSON-like text, by pattern. The value buffer holds it or stays zeroed.
void json_key_extract(const char *msg, const char *key, char *value, size_t value_cap);

// String / integer member, key compared ignoring case. 0; -1 with a warning. A string that does not fit is cut, the
// buffer is zeroed first; a number saturates, *value is untouched on failure.
int json_get_string(const cJSON *object, const char *key, char *buf, size_t buf_cap);
int json_get_int(const cJSON *object, const char *key, int32_t *value);

// cJSON_Parse that logs the place of a syntax error, "Error before JSON content: %s", without process-wide state.
// The tree, freed by the caller with cJSON_Delete; null on failure.
cJSON *json_parse_logged(const char *text);
