#include "format_file.h"

#include <ctype.h>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "device_files.h"

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
    std::string bytes;
    if (!format_parse(file_text(path), &bytes) || bytes.empty()) {
        fprintf(stderr, "%s: not a format file\n", path.c_str());
        bytes.clear();
    }
    return bytes;
}

// What one cell stands for.
static std::string cell_parse(const std::string &cell)
{
    const size_t begin = cell.find_first_not_of(' '), last = cell.find_last_not_of(' ');
    if (begin == std::string::npos)
        return "";
    if (cell[begin] != '`' || cell[last] != '`' || last == begin)
        return cell.substr(begin, last + 1 - begin);
    std::string bytes;
    for (size_t at = begin + 1; at < last; at++) {
        const char next = cell[at] == '\\' ? cell[at + 1] : '\0';
        if (next == 'x' && at + 3 < last) {
            bytes.push_back((char)strtol(cell.substr(at + 2, 2).c_str(), nullptr, 16));
            at += 3;
        } else if (next != '"' && (next == '|' || escaped(next) >= 0)) {
            bytes.push_back(next == '|' ? next : (char)escaped(next));
            at++;
        } else {
            bytes.push_back(cell[at]);
        }
    }
    return bytes;
}

// line: begins with a bar, and ends with one.
static std::vector<std::string> row_parse(const std::string &line)
{
    std::vector<std::string> cells;
    for (size_t begin = 1, at = 1; at < line.size(); at++) {
        if (line[at] == '\\') {
            at++;
        } else if (line[at] == '|') {
            cells.push_back(cell_parse(line.substr(begin, at - begin)));
            begin = at + 1;
        }
    }
    return cells;
}

std::vector<std::vector<std::string>> format_table(const std::string &path)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream text(file_text(path));
    size_t columns = 0; // 0: not behind a line of dashes
    for (std::string line; std::getline(text, line);) {
        const std::vector<std::string> cells = line[0] == '|' ? row_parse(line) : std::vector<std::string>();
        if (columns == 0 && line.compare(0, 4, "|---") == 0) {
            columns = cells.size();
        } else if (columns == 0 || cells.empty()) {
            columns = 0;
        } else if (cells.size() == columns) {
            rows.push_back(cells);
        } else {
            fprintf(stderr, "%s: not %zu cells: %s\n", path.c_str(), columns, line.c_str());
            return {};
        }
    }
    if (rows.empty())
        fprintf(stderr, "%s: no table\n", path.c_str());
    return rows;
}
