#include "nm/report_strategy.h"
#include "nm/report_strategy_internal.h"

#include <sstream>

#include "peers.h"
#include "status/service_status_internal.h"

struct StrategyCase {
    const char *payload;
    const char *outcome;  // result, and then enabled, mode, period, limit
    const char *strategy; // as the device gets it, null: nothing
    const char *line;     // that the log has, empty: not looked at
};

#define STRATEGY(action, members) "{\"type\":\"device-status\",\"param\":{\"action\":\"" action "\"," members "}}"
#define CHANGE_120_TO_60 "Change the device service status report interval from: 120 to 60."

static const StrategyCase k_cases[] = {
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), "0 0 1 60 7",
     "{\n\t\"mode\":\t\"timing\",\n\t\"period\":\t60\n}", CHANGE_120_TO_60},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"immediate_timing\",\"period\":60,\"x\":[1,2]}"), "0 1 3 60 7",
     "{\n\t\"mode\":\t\"immediate_timing\",\n\t\"period\":\t60,\n\t\"x\":\t[1, 2]\n}",
     "Start the device service status report."},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"delay\",\"limit\":5}"), "0 1 2 120 5",
     "{\n\t\"mode\":\t\"delay\",\n\t\"limit\":\t5\n}", "payload_len: 94, content: {\t\"type\""},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"immediate_delay\",\"period\":9}"), "0 0 4 120 7",
     "{\n\t\"mode\":\t\"immediate_delay\",\n\t\"period\":\t9\n}", "Not found int value for key: limit!"},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"immediate\",\"limit\":9}"), "0 0 0 120 7",
     "{\n\t\"mode\":\t\"immediate\",\n\t\"limit\":\t9\n}", ""},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":-3}"), "0 0 1 -3 7",
     "{\n\t\"mode\":\t\"timing\",\n\t\"period\":\t-3\n}", ""},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"Timing\",\"period\":60},\"systemPeriod\":33"), "0 1 4 120 7",
     nullptr, "Undefined mode: Timing"},
    {STRATEGY("set", "\"serviceStrategy\":{\"period\":60,\"limit\":9}"), "0 0 4 120 7", nullptr, ""},
    {STRATEGY("set", "\"systemPeriod\":44"), "0 0 4 120 7", nullptr,
     "Change the device system status report interval from: 33 to 44."},
    {STRATEGY("stop", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), "0 0 4 120 7", nullptr,
     "Stop the device service status report."},
    {STRATEGY("sets", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), "-1 0 4 120 7", nullptr,
     "Undefined action: sets"},
    {"{\"param\":{\"serviceStrategy\":{\"mode\":\"timing\"}}}", "0 0 4 120 7", nullptr, ""},
    {"{\"type\":\"device-status\"}", "0 0 4 120 7", nullptr, ""},
    {"{\"param\":", "-1 0 4 120 7", nullptr, "Error before JSON content: "},
    {nullptr, "-1 0 4 120 7", nullptr, "payload is NULL!"},
};

TEST(ReportStrategy, Commands)
{
    nm_set("1");
    int device = device_link();
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.payload ? c.payload : "null");
        service_status_reset();
        service_status_set_delay(SERVICE_IMMEDIATE_DELAY, 7);
        LogLines log;
        std::ostringstream outcome;
        outcome << nm_dev_status_control_handle(0, "", c.payload, 1);
        const ServiceSettings now = service_settings_get();
        outcome << ' ' << now.enabled << ' ' << now.mode << ' ' << now.timer.seconds << ' ' << now.limit_kib;
        EXPECT_EQ(outcome.str(), c.outcome);
        EXPECT_EQ(service_state_get(), now.enabled ? SERVICE_REQUESTED : SERVICE_IDLE);
        std::string frame = "{\t\"type\":\"service-strategy\",\t\"ver\":\"1.3\",\t\"serviceStrategy\":";
        EXPECT_EQ(device_read(device, 0), c.strategy ? frame + c.strategy + "}" : "(none)");
        EXPECT_TRUE(log.has(c.line));
    }
    service_strategy_to_device(std::string(600, 's').c_str());
    EXPECT_EQ(device_read(device).size(), 506u); // cut, with a matching length
    conn_remove_all();
    close(device);
}
