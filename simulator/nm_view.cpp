#include "nm_view.h"

#include <stdio.h>
#include <stdlib.h>

#include "json_text.h"

static const cJSON *member(const cJSON *object, const char *key)
{
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

static const cJSON *find_interface(const cJSON *root, const std::string &name)
{
    const cJSON *item;
    cJSON_ArrayForEach(item, member(member(root, "basic"), "interface"))
    {
        if (json_text(item, "ifname") == name)
            return item;
    }
    return nullptr;
}

// kbit/s between two reports; "-" without an earlier one.
static std::string rate(const cJSON *now, const cJSON *before, const char *key, long long elapsed_ms)
{
    if (!before || elapsed_ms <= 0)
        return "-";
    const double bytes = strtod(json_text(now, key).c_str(), nullptr) - strtod(json_text(before, key).c_str(), nullptr);
    char text[32];
    snprintf(text, sizeof(text), "%.1f", bytes * 8 / (double)elapsed_ms);
    return text;
}

std::string nm_view_run_status(const std::string &body, const std::string &previous, long long elapsed_ms)
{
    JsonTree root = json_parse(body);
    JsonTree before = json_parse(previous);
    const cJSON *basic = member(root.get(), "basic");
    const cJSON *board = cJSON_GetArrayItem(member(basic, "board"), 0);
    char line[256];
    snprintf(line, sizeof(line), "  run status of %s at %s, up %s: cpu %s, memory %s, disk %s",
             json_text(root.get(), "deviceSn").c_str(), json_text(basic, "datetime").c_str(),
             json_text(basic, "runtime").c_str(), json_text(board, "cpuUsage").c_str(),
             json_text(board, "memoryUsage").c_str(), json_text(board, "diskUsage").c_str());
    std::string table = line;
    snprintf(line, sizeof(line), "\n  %-15s %-5s %-11s %-20s %12s %12s", "interface", "link", "speed", "ipv4",
             "rx kbit/s", "tx kbit/s");
    table += line;
    const cJSON *item;
    cJSON_ArrayForEach(item, member(basic, "interface"))
    {
        const cJSON *last = find_interface(before.get(), json_text(item, "ifname"));
        snprintf(line, sizeof(line), "\n  %-15s %-5s %-11s %-20s %12s %12s", json_text(item, "ifname").c_str(),
                 json_text(item, "linkstatus").c_str(), json_text(item, "linkSpeed").c_str(),
                 json_text(item, "ipv4").c_str(), rate(item, last, "rxbytes", elapsed_ms).c_str(),
                 rate(item, last, "txbytes", elapsed_ms).c_str());
        table += line;
    }
    return table;
}

std::string nm_view_services(const std::string &body)
{
    JsonTree root = json_parse(body);
    const std::string records = json_print_plain(member(root.get(), "services"));
    return "  services of " + json_text(root.get(), "deviceSn") + ": " + json_one_line(records, 400);
}

std::string nm_view_line(const NmRequest &request)
{
    cJSON *root = cJSON_CreateObject();
    const size_t path = request.line.find(' ') + 1;
    cJSON_AddStringToObject(root, "method", request.line.substr(0, path ? path - 1 : 0).c_str());
    cJSON_AddStringToObject(root, "path", request.line.substr(path, request.line.rfind(' ') - path).c_str());
    cJSON *headers = cJSON_AddObjectToObject(root, "headers");
    for (const std::string &header : request.headers) {
        const size_t colon = header.find(':');
        const size_t value = colon == std::string::npos ? colon : header.find_first_not_of(' ', colon + 1);
        cJSON_AddStringToObject(headers, header.substr(0, colon).c_str(),
                                value == std::string::npos ? "" : header.substr(value).c_str());
    }
    cJSON_AddStringToObject(root, "body", request.body.c_str());
    cJSON_AddStringToObject(root, "answer", request.answer.c_str());
    cJSON_AddBoolToObject(root, "on_purpose", request.on_purpose);
    cJSON_AddStringToObject(root, "wrong", request.wrong.c_str());
    return json_print_and_delete(root);
}
