// regex_extract.h - values out of texts by POSIX extended regular expression. Any thread; no state.
#pragma once

#include <regex.h>
#include <stddef.h>

// Copies what group 1 of regex matches in msg into value, NUL-ended. 0 when found; also 0, with an empty value, for a
// match without a group 1. 1 without a match; regcomp's error code; -1 for a missing argument or a value that does not
// fit. Every outcome has its log line. value is zeroed first.
int regex_extract(const char *msg, const char *regex, char *value, size_t value_cap);

// regcomp of an extended expression. 0, and the caller owes a regfree; or regcomp's error code (logged).
int regex_compile(regex_t *compiled, const char *regex);
