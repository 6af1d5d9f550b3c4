// http_client_internal.h - for tests only.
#pragma once

// Extracts the JSON object from an answer. Its length with a fresh copy (caller frees) in *json; 0 for a 200 without a
// usable object, -1 (logged) for a missing or non-200 status line, *json null in both cases.
int http_parse_response(const char *text, char **json);
