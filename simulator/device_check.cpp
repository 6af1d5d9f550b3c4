#include "device_check.h"

#include <stdlib.h>

#include "json_text.h"

constexpr size_t OWN_MAX = 506;      // bytes of a message of the agent itself
constexpr size_t COMMAND_MAX = 5119; // bytes of a command of NM

struct FrameLayout {
    const char *type;
    const char *layout;
    const char *keys;
};

#define RESULT_ACK "{\t\"sessionid\":\"%K\",\t\"type\":\"%K\",\t\"result\":%K,\t\"cause\":\"%K\",\t\"ver\":\"%K\"}"
#define RESULT_ACK_KEYS "sessionid type result cause ver"
#define AGENT_STATUS "{\t\"type\":\"%K\",\t\"result\":\"%K\",\t\"cause\":\"%K\",\t\"ver\":\"%K\"}"
#define AGENT_STATUS_KEYS "type result cause ver"

static const FrameLayout k_layouts[] = {
    {"cfg-ack", RESULT_ACK, RESULT_ACK_KEYS},
    {"upgrade-ack", RESULT_ACK, RESULT_ACK_KEYS},
    {"backup-ack", RESULT_ACK, RESULT_ACK_KEYS},
    {"alarm-ack", "{\t\"type\":\"%K\",\t\"msgId\":%K,\t\"result\":%K,\t\"ver\":\"%K\"}", "type msgId result ver"},
    {"online-status-ack", AGENT_STATUS, AGENT_STATUS_KEYS},
    {"online-status-notify", AGENT_STATUS, AGENT_STATUS_KEYS},
    {"pong", "{\n\t\"type\":\"%K\"\n}\n", "type"},
    {"redirection", "{\t\"type\":\"%K\",\t\"ver\":\"%K\",\t\"result\":%K}", "type ver result"},
    {"service-strategy", "{\t\"type\":\"%K\",\t\"ver\":\"%K\",\t\"serviceStrategy\":%K}", "type ver serviceStrategy"},
};

static std::string check_command(const std::string &text, const cJSON *root)
{
    if (text.size() > COMMAND_MAX)
        return "command too long";
    return text == json_print_plain(root) ? "" : "command not in unformatted print";
}

std::string device_check_frame(const std::string &text, std::string *type)
{
    JsonTree root(cJSON_ParseWithOpts(text.c_str(), nullptr, 0), cJSON_Delete);
    *type = json_text(root.get(), "type");
    if (type->empty())
        return "no JSON object with a type";
    for (const FrameLayout &row : k_layouts) {
        if (*type != row.type)
            continue;
        if (json_refill(row.layout, root.get(), row.keys) != text)
            return "not laid out as agreed";
        return text.size() > OWN_MAX ? "longer than 506 bytes" : "";
    }
    return check_command(text, root.get());
}
