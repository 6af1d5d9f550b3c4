// json_text.h - small readings of JSON texts for the checks of both simulators.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

using JsonTree = std::unique_ptr<cJSON, void (*)(cJSON *)>;

// The tree of a text that is JSON from end to end, else null.
JsonTree json_parse(const std::string &text);

// A member's text if it is a string, else "".
std::string json_text(const cJSON *object, const char *key);

// The formatted print.
std::string json_print(const cJSON *item);

// The print without blanks, in one line; "" for nullptr. The second one also deletes the tree.
std::string json_print_plain(const cJSON *item);
std::string json_print_and_delete(cJSON *root);

// Whether the members of an object are these keys in this order; keys are separated by one blank. A key with "?" in
// front may be missing.
bool json_keys_are(const cJSON *object, const std::string &keys);

// Fills a layout: each %K is replaced by the next member's value, strings without quotes and everything else as
// printed. With the layout that a text was made from the result is the text again. "" when a member is missing. The
// member names are separated by one blank.
std::string json_refill(const std::string &layout, const cJSON *object, const std::string &keys);

// text with control characters written as \n, \t, \xNN, cut to max characters, for one line of output.
std::string json_one_line(const std::string &text, size_t max);
