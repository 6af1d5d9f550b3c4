// json_text.h - JSON for the checks and texts of both simulators. No state.
#pragma once

#include <cjson/cJSON.h>
#include <memory>
#include <string>

using JsonTree = std::unique_ptr<cJSON, void (*)(cJSON *)>;

// The tree of a text that is JSON as a whole, else null.
JsonTree json_parse(const std::string &text);

// A member's text if it is a string, else "".
std::string json_text(const cJSON *object, const char *key);

// The formatted print.
std::string json_print(const cJSON *item);

// The unformatted print, in one line without blanks; "" for nullptr. The second one also deletes the tree.
std::string json_print_plain(const cJSON *item);
std::string json_print_and_delete(cJSON *root);

// Whether item is an object with these keys in this order. Keys are separated by one blank; one that begins with "?"
// may be missing.
bool json_has_keys(const cJSON *item, const std::string &keys);

// Fills a layout: each %K is replaced by the value of the next key's member, strings without quotes, everything else in
// formatted print. Thus an object printed in this layout gives its own text again. "" when a member is missing. Keys
// are separated by one blank.
std::string json_refill(const std::string &layout, const cJSON *object, const std::string &keys);

// text in one line, control characters written as \n, \t, \r or \xNN; truncated at about max characters, with " ...".
std::string json_one_line(const std::string &text, size_t max);
