#include "nm/report_strategy.h"
#include "nm/report_strategy_internal.h"

#include "peers.h"
#include "status/service_status_internal.h"

static std::string settings_text(const ServiceSettings &now)
{
    return std::string(now.enabled ? "on" : "off") + ", mode " + std::to_string(now.mode) + ", " +
           std::to_string(now.timer.seconds) + " s, " + std::to_string(now.limit_kib) + " KiB";
}

TEST(ReportStrategy, Commands)
{
    nm_set("1");
    int device = device_link();
    for (const Texts &row : examples("device-status")) {
        SCOPED_TRACE(row[0]);
        service_status_reset();
        service_status_set_delay(SERVICE_IMMEDIATE_DELAY, 7);
        LogLines log;
        EXPECT_EQ(row[1], std::to_string(nm_dev_status_control_handle(0, "", row[0].c_str(), 1)));
        const ServiceSettings now = service_settings_get();
        EXPECT_EQ(row[2], settings_text(now));
        EXPECT_EQ(now.enabled ? SERVICE_REQUESTED : SERVICE_IDLE, service_state_get());
        const std::string message = "{\t\"type\":\"service-strategy\",\t\"ver\":\"1.3\",\t\"serviceStrategy\":";
        EXPECT_EQ(row[3].empty() ? "(none)" : message + row[3] + "}", device_read(device, 0));
        EXPECT_TRUE(log.has(row[4]));
    }
    EXPECT_EQ(-1, nm_dev_status_control_handle(0, "", nullptr, 0));
    service_strategy_to_device(std::string(600, 's').c_str());
    EXPECT_EQ(device_read(device).size(), 506u); // cut, with a matching length
    conn_remove_all();
    close(device);
}
