#include "format_file.h"

#include <ctype.h>
#include <fstream>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// The byte that stands for \letter; -1 for another letter.
static int escaped(char letter)
{
    static const char k_letters[] = "rnt0\"\\", k_bytes[] = "\r\n\t\0\"\\";
    const char *found = letter ? strchr(k_letters, letter) : nullptr;
    return found ? (unsigned char)k_bytes[found - k_letters] : -1;
}

// at: behind the opening quote; behind the closing one afterwards.
static bool text_take(const std::string &text, size_t *at, std::string *bytes)
{
    for (; *at < text.size() && text[*at] != '\n'; ++*at) {
        if (text[*at] == '"') {
            ++*at;
            return true;
        }
        int byte = (unsigned char)text[*at];
        if (byte == '\\')
            byte = ++*at < text.size() ? escaped(text[*at]) : -1;
        if (byte < 0)
            return false;
        bytes->push_back((char)byte);
    }
    return false;
}

bool format_parse(const std::string &text, std::string *bytes)
{
    bytes->clear();
    for (size_t at = 0; at < text.size();) {
        if (isspace((unsigned char)text[at])) {
            at++;
        } else if (text[at] == '#') {
            at = std::min(text.find('\n', at), text.size());
        } else if (text[at] == '"') {
            if (!text_take(text, &++at, bytes))
                return false;
        } else if (isxdigit((unsigned char)text[at]) && at + 1 < text.size() && isxdigit((unsigned char)text[at + 1])) {
            bytes->push_back((char)strtol(text.substr(at, 2).c_str(), nullptr, 16));
            at += 2;
        } else {
            return false;
        }
    }
    return true;
}

std::string format_read(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    std::string bytes;
    if (!(text << file.rdbuf()) || !format_parse(text.str(), &bytes)) {
        fprintf(stderr, "%s: not a format file\n", path.c_str());
        bytes.clear();
    }
    return bytes;
}
