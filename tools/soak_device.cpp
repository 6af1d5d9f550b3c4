#include "soak_device.h"

#include <algorithm>
#include <string>

#include "device_service.h"
#include "soak_account.h"
#include "soak_state.h"

constexpr int RESULT_MAX = 1 << 20; // bytes
constexpr int DEPTH_MAX = 900;      // levels that a message nests
constexpr int WAITING_MAX = 6;      // results without an ack; with more, the device waits

// Up to 2,000 printable bytes; in one of ten cases up to the largest message.
static std::string data_make(Random *random)
{
    const int most = soak_pick(random, 0, 9) == 0 ? RESULT_MAX - 2 * DEPTH_MAX - 200 : 2000;
    std::string data = noise((size_t)soak_pick(random, 0, most), (*random)());
    std::transform(data.begin(), data.end(), data.begin(), [](unsigned char byte) { return '0' + byte % 43; });
    return data;
}

static std::string nest_make(Random *random)
{
    const auto depth = (size_t)soak_pick(random, 1, DEPTH_MAX);
    return std::string(depth, '[') + std::string(depth, ']');
}

static void alarm_send(int number, const std::string &data, const std::string &nest)
{
    const std::string id = std::to_string(number);
    account_send(number, "alarm",
                 "[{\n\t\"id\":\t" + id + ",\n\t\"data\":\t\"" + data + "\",\n\t\"nest\":\t" + nest + "\n}]",
                 "{\"type\":\"alarm-info\",\"msgId\":" + id + ",\"payload\":{\"id\":" + id + ",\"data\":\"" + data +
                     "\",\"nest\":" + nest + "}}");
}

static void result_send(int number, Random *random)
{
    static const struct {
        const char *type;
        const char *name; // the last part of NM's path
    } k_kinds[] = {{"upgrade-result", "upgradeResult"}, {"cfg-result", "cfgResult"}, {"backup-result", "backupResult"}};
    const std::string nest = nest_make(random);
    const std::string data = data_make(random);
    if (soak_pick(random, 0, 4) == 0) {
        alarm_send(number, data, nest);
        return;
    }
    const auto &kind = k_kinds[soak_pick(random, 0, 2)];
    const std::string text = std::string("{\"type\":\"") + kind.type + "\",\"sessionid\":\"" + std::to_string(number) +
                             "\",\"data\":\"" + data + "\",\"nest\":" + nest + "}";
    account_send(number, kind.name, text, text);
}

// The agent takes what follows for the rest of the frame that was cut off: padding completes it, until a ping is
// answered.
static void resynchronise()
{
    if (stage_ping(g_soak.stage, std::string(65536, ' ') + "{\"type\":\"ping\"}", 1000))
        account_set_synchronised();
    soak_pause(300);
}

static void service_record_add(int n)
{
    const std::string path = g_soak.stage->agent.dir + "/service";
    if (n % 20 == 0)
        device_write_file(path, ""); // in timing mode it is the device that empties it
    device_service_add(path, device_service_record(n));
}

void device_run(unsigned seed)
{
    Random random(seed);
    DeviceSim *device = g_soak.stage->device;
    for (int n = 1; g_soak.traffic; n++) {
        while (g_soak.traffic && (!account_is_synchronised() || account_waiting() >= WAITING_MAX))
            account_is_synchronised() ? soak_pause(20) : resynchronise();
        result_send(n, &random);
        if (n % 5 == 0 && account_is_synchronised()) {
            device_sim_send(device, "{\"type\":\"call-history\",\"payload\":[" + std::to_string(n) + "]}");
            device_sim_send(device, "{\"type\":\"ping\"}");
            service_record_add(n / 5);
        }
        soak_pause(soak_pick(&random, 20, 300));
    }
}
