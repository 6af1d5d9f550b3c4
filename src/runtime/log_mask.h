// log_mask.h - hides what must not stand in a log: the values of token, key and secretKey. Any thread; no state.
#pragma once

// A copy of text, which the caller frees, with "***" for each value: of the JSON members "token", "key" and "secretKey"
// in any case, also in JSON within a JSON text; of the header line "secretKey: "; and of "token: ". A text that ends in
// the middle of a value, or whose end is uncertain, loses too much rather than too little. Null without memory.
char *log_mask(const char *text);
