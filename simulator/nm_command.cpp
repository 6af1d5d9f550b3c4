#include "nm_command.h"

#include "json_text.h"

static cJSON *command(const std::string &type)
{
    cJSON *root = cJSON_CreateObject();
    cJSON_AddStringToObject(root, "type", type.c_str());
    return root;
}

static void add_if_set(cJSON *object, const char *key, int value)
{
    if (value >= 0)
        cJSON_AddNumberToObject(object, key, value);
}

std::string nm_command_forward(const std::string &type, const std::string &session)
{
    cJSON *root = command(type);
    if (!session.empty())
        cJSON_AddStringToObject(root, "sessionid", session.c_str());
    return json_print_and_delete(root);
}

std::string nm_command_trigger(int period_s)
{
    cJSON *root = command("trigger");
    cJSON_AddNumberToObject(cJSON_AddObjectToObject(root, "param"), "period", period_s);
    return json_print_and_delete(root);
}

std::string nm_command_device_status(const NmStrategy &strategy)
{
    cJSON *root = command("device-status");
    cJSON *param = cJSON_AddObjectToObject(root, "param");
    cJSON_AddStringToObject(param, "action", strategy.action.c_str());
    add_if_set(param, "systemPeriod", strategy.system_period_s);
    if (!strategy.mode.empty()) {
        cJSON *service = cJSON_AddObjectToObject(param, "serviceStrategy");
        cJSON_AddStringToObject(service, "mode", strategy.mode.c_str());
        add_if_set(service, "period", strategy.period_s);
        add_if_set(service, "limit", strategy.limit_kib);
    }
    return json_print_and_delete(root);
}

std::string nm_command_tunnel(const NmTunnel &tunnel)
{
    cJSON *root = command(tunnel.type);
    cJSON *param = cJSON_AddObjectToObject(root, "param");
    cJSON_AddStringToObject(param, "action", tunnel.action.c_str());
    cJSON_AddStringToObject(param, "host", tunnel.host.c_str());
    cJSON_AddNumberToObject(param, "port", tunnel.port);
    cJSON_AddStringToObject(param, "token", tunnel.token.c_str());
    cJSON_AddNumberToObject(param, "key", tunnel.key);
    cJSON_AddStringToObject(param, "sessionid", tunnel.session.c_str());
    return json_print_and_delete(root);
}
