#include "nm/report_strategy.h"
#include "nm/report_strategy_internal.h"

#include <cjson/cJSON.h>
#include <string.h>

#include "device/dev_msg_send.h"
#include "nm/nm_session.h"
#include "runtime/log.h"
#include "status/service_status.h"
#include "transport/field_extract.h"

static const struct {
    const char *name;
    ServiceReportMode mode;
} k_modes[] = {
    {"immediate", SERVICE_IMMEDIATE},
    {"timing", SERVICE_TIMING},
    {"delay", SERVICE_DELAY},
    {"immediate_timing", SERVICE_IMMEDIATE_TIMING},
    {"immediate_delay", SERVICE_IMMEDIATE_DELAY},
};

void service_strategy_to_device(const char *strategy_text)
{
    if (!strategy_text) {
        log_error("strategy is NULL!");
        return;
    }
    dev_object_send("service-strategy", "serviceStrategy", strategy_text);
}

// Puts mode and its value in force. 0, or -1 (logged) for a mode that does not exist.
static int mode_apply(const char *name, int32_t period_s, int32_t limit_kib)
{
    for (const auto &row : k_modes) {
        if (strcmp(row.name, name) != 0)
            continue;
        switch (row.mode) {
        case SERVICE_IMMEDIATE:
            service_status_set_immediate();
            break;
        case SERVICE_TIMING:
        case SERVICE_IMMEDIATE_TIMING:
            service_status_set_timing(row.mode, period_s);
            break;
        case SERVICE_DELAY:
        case SERVICE_IMMEDIATE_DELAY:
            service_status_set_delay(row.mode, limit_kib);
            break;
        }
        return 0;
    }
    log_warn("Undefined mode: %s", name);
    return -1;
}

// Applies "systemPeriod" and "serviceStrategy" of the "param" object.
static void service_strategy_apply(const cJSON *param)
{
    if (!param) {
        log_error("param_json is NULL!");
        return;
    }
    int32_t system_period_s;
    if (json_get_int(param, "systemPeriod", &system_period_s) == 0)
        run_status_period_set(system_period_s); // logs the change

    const cJSON *strategy = cJSON_GetObjectItem(param, "serviceStrategy");
    if (!cJSON_IsObject(strategy))
        return;
    char mode[128];
    int32_t period_s = service_status_period_get();
    int32_t limit_kib = service_status_limit_get();
    bool has_mode = json_get_string(strategy, "mode", mode, sizeof(mode)) == 0;
    (void)json_get_int(strategy, "period", &period_s); // absent: what is in force stays
    (void)json_get_int(strategy, "limit", &limit_kib);
    if (!has_mode || mode_apply(mode, period_s, limit_kib) != 0)
        return;

    char *text = cJSON_Print(strategy);
    service_strategy_to_device(text);
    cJSON_free(text);
}

static int action_run(const char *action, const cJSON *param)
{
    if (strcmp(action, "set") == 0) {
        service_strategy_apply(param);
        return 0;
    }
    if (strcmp(action, "start") == 0) {
        service_strategy_apply(param);
        log_info("Start the device service status report.");
        service_status_start();
        return 0;
    }
    if (strcmp(action, "stop") == 0) {
        log_info("Stop the device service status report.");
        service_status_stop();
        return 0;
    }
    log_warn("Undefined action: %s", action);
    return -1;
}

int nm_dev_status_control_handle(uintptr_t, const char *, const char *payload, uint32_t)
{
    if (!payload) {
        log_error("payload is NULL!");
        return -1;
    }
    cJSON *message = json_parse_logged(payload);
    if (!message)
        return -1;
    const cJSON *param = cJSON_GetObjectItem(message, "param");
    char action[128];
    int result = 0; // a message without an action is no failure
    if (json_get_string(param, "action", action, sizeof(action)) == 0)
        result = action_run(action, param);
    cJSON_Delete(message);
    return result;
}
