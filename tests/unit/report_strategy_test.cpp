#include "nm/report_strategy.h"

#include <string.h>

#include "log_capture.h"
#include "net_peer.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"
#include "status/service_status_internal.h"
#include "transport/conn_registry.h"

// Registers a device link to a socket of ours, which is returned.
static int device_link(void)
{
    std::string port;
    int listener = listen_socket(&port);
    SocketConn conn = tcp_connect("127.0.0.1", port.c_str(), nullptr, nullptr, 0, 0);
    EXPECT_GT(conn.socket_fd, 0);
    (void)conn_add(DEV_TCP, conn, 0);
    int device = accept(listener, nullptr, nullptr);
    close(listener);
    return device;
}

// The text of the frame that arrived at the device, empty when there is none.
static std::string frame_text(int device)
{
    char bytes[2048];
    ssize_t got = recv(device, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (got < 4)
        return "";
    EXPECT_EQ(le32_get(bytes), (uint32_t)got - 4);
    return std::string(bytes + 4, (size_t)got - 4);
}

static void start_values(void)
{
    service_status_reset();
    service_status_set_delay(SERVICE_IMMEDIATE_DELAY, 7);
    PluginInfoEdit edit;
    plugin_info_edit_begin(&edit);
    (void)plugin_info_edit_text(&edit, edit.next.protocol_version, "1.3");
    plugin_info_edit_commit(&edit);
}

struct StrategyCase {
    const char *payload;
    int result;
    int enabled;
    int32_t mode, period, limit;
    const char *strategy; // as the device gets it, null: nothing
    const char *line;     // that the log has, null: not looked at
};

#define STRATEGY(action, members) "{\"type\":\"device-status\",\"param\":{\"action\":\"" action "\"," members "}}"
#define CHANGE_120_TO_60 "Change the device service status report interval from: 120 to 60."

static const StrategyCase k_cases[] = {
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), 0, 0, 1, 60, 7,
     "{\n\t\"mode\":\t\"timing\",\n\t\"period\":\t60\n}", CHANGE_120_TO_60},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"immediate_timing\",\"period\":60,\"x\":[1,2]}"), 0, 1, 3, 60, 7,
     "{\n\t\"mode\":\t\"immediate_timing\",\n\t\"period\":\t60,\n\t\"x\":\t[1, 2]\n}",
     "Start the device service status report."},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"delay\",\"limit\":5}"), 0, 1, 2, 120, 5,
     "{\n\t\"mode\":\t\"delay\",\n\t\"limit\":\t5\n}", "payload_len: 94, content: {\t\"type\""},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"immediate_delay\",\"period\":9}"), 0, 0, 4, 120, 7,
     "{\n\t\"mode\":\t\"immediate_delay\",\n\t\"period\":\t9\n}", "Not found int value for key: limit!"},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"immediate\",\"limit\":9}"), 0, 0, 0, 120, 7,
     "{\n\t\"mode\":\t\"immediate\",\n\t\"limit\":\t9\n}", nullptr},
    {STRATEGY("set", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":-3}"), 0, 0, 1, -3, 7,
     "{\n\t\"mode\":\t\"timing\",\n\t\"period\":\t-3\n}", nullptr},
    {STRATEGY("start", "\"serviceStrategy\":{\"mode\":\"Timing\",\"period\":60},\"systemPeriod\":33"), 0, 1, 4, 120, 7,
     nullptr, "Undefined mode: Timing"},
    {STRATEGY("set", "\"serviceStrategy\":{\"period\":60,\"limit\":9}"), 0, 0, 4, 120, 7, nullptr, nullptr},
    {STRATEGY("set", "\"systemPeriod\":44"), 0, 0, 4, 120, 7, nullptr,
     "Change the device system status report interval from: 33 to 44."},
    {STRATEGY("stop", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), 0, 0, 4, 120, 7, nullptr,
     "Stop the device service status report."},
    {STRATEGY("sets", "\"serviceStrategy\":{\"mode\":\"timing\",\"period\":60}"), -1, 0, 4, 120, 7, nullptr,
     "Undefined action: sets"},
    {"{\"param\":{\"serviceStrategy\":{\"mode\":\"timing\"}}}", 0, 0, 4, 120, 7, nullptr, nullptr},
    {"{\"type\":\"device-status\"}", 0, 0, 4, 120, 7, nullptr, nullptr},
    {"{\"param\":", -1, 0, 4, 120, 7, nullptr, "Error before JSON content: "},
    {nullptr, -1, 0, 4, 120, 7, nullptr, "payload is NULL!"},
};

TEST(ReportStrategy, Commands)
{
    int device = device_link();
    for (const auto &c : k_cases) {
        SCOPED_TRACE(c.payload ? c.payload : "null");
        start_values();
        log_capture_begin();
        EXPECT_EQ(nm_dev_status_control_handle(0, "", c.payload, c.payload ? (uint32_t)strlen(c.payload) : 0),
                  c.result);
        std::string log = log_capture_end();
        ServiceSettings now = service_settings_get();
        EXPECT_EQ(now.enabled, c.enabled);
        EXPECT_EQ(service_state_get(), c.enabled ? SERVICE_REQUESTED : SERVICE_IDLE);
        EXPECT_EQ(now.mode, c.mode);
        EXPECT_EQ(now.timer.seconds, c.period);
        EXPECT_EQ(now.limit_kib, c.limit);
        std::string frame = "{\t\"type\":\"service-strategy\",\t\"ver\":\"1.3\",\t\"serviceStrategy\":";
        EXPECT_EQ(frame_text(device), c.strategy ? frame + c.strategy + "}" : "");
        EXPECT_TRUE(!c.line || log.find(c.line) != std::string::npos) << log;
    }
    conn_remove_all();
    close(device);
}

TEST(ReportStrategy, ALongStrategyIsCutWithAMatchingLength)
{
    start_values();
    int device = device_link();
    service_strategy_to_device(std::string(600, 's').c_str());
    std::string text = frame_text(device);
    EXPECT_EQ(text.size(), 506u);
    EXPECT_EQ(text.back(), 's');
    conn_remove_all();
    close(device);
}

TEST(ReportStrategy, WithoutADeviceLinkTheStrategyHoldsAllTheSame)
{
    start_values();
    log_capture_begin();
    (void)nm_dev_status_control_handle(0, "", k_cases[1].payload, 1);
    EXPECT_EQ(log_capture_end(), "[WRN] Not found int value for key: systemPeriod!\n"
                                 "[WRN] Not found int value for key: limit!\n"
                                 "[INF] " CHANGE_120_TO_60 "\n"
                                 "[WRN] The device TCP connection is lost!\n"
                                 "[INF] Start the device service status report.\n");
    EXPECT_EQ(service_settings_get().mode, SERVICE_IMMEDIATE_TIMING);
}
