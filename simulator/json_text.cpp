#include "json_text.h"

#include <sstream>
#include <stdio.h>

JsonTree json_parse(const std::string &text)
{
    return JsonTree(cJSON_ParseWithOpts(text.c_str(), nullptr, 1), cJSON_Delete);
}

std::string json_text(const cJSON *object, const char *key)
{
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

// Copies a text of cJSON's and frees it.
static std::string text_take(char *text)
{
    std::string result = text ? text : "";
    cJSON_free(text);
    return result;
}

std::string json_print(const cJSON *item)
{
    return text_take(cJSON_Print(item));
}

std::string json_print_plain(const cJSON *item)
{
    return text_take(cJSON_PrintUnformatted(item));
}

std::string json_print_and_delete(cJSON *root)
{
    std::string text = json_print_plain(root);
    cJSON_Delete(root);
    return text;
}

bool json_has_keys(const cJSON *item, const std::string &keys)
{
    std::istringstream words(keys);
    const cJSON *member = item ? item->child : nullptr;
    for (std::string key; words >> key;) {
        const bool optional = key[0] == '?';
        if (member && key.substr(optional) == member->string)
            member = member->next;
        else if (!optional)
            return false;
    }
    return cJSON_IsObject(item) && !member;
}

std::string json_refill(const std::string &layout, const cJSON *object, const std::string &keys)
{
    std::istringstream words(keys);
    std::string result;
    size_t from = 0;
    for (std::string key; words >> key;) {
        const cJSON *member = cJSON_GetObjectItemCaseSensitive(object, key.c_str());
        size_t at = layout.find("%K", from);
        if (!member || at == std::string::npos)
            return "";
        result += layout.substr(from, at - from) + (cJSON_IsString(member) ? member->valuestring : json_print(member));
        from = at + 2;
    }
    return result + layout.substr(from);
}

std::string json_one_line(const std::string &text, size_t max)
{
    std::string line;
    for (unsigned char c : text) {
        char code[8];
        snprintf(code, sizeof(code), "\\x%02x", c);
        line += c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\r' ? "\\r" : c < ' ' ? code : std::string(1, (char)c);
        if (line.size() > max)
            return line.substr(0, max) + " ...";
    }
    return line;
}
