// device_simulator - a simulated device, controlled by typed lines or a script. "help" lists them.
#include <algorithm>
#include <atomic>
#include <memory>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "console.h"
#include "device_files.h"
#include "device_sim.h"
#include "sim_loop.h"

static const char k_usage[] =
    "device_simulator --dir DIR --nm-port N [--https] [--port N] [--count N] [--set KEY=JSON]... [--script FILE]\n"
    "Plays the device: writes its init cfg (DIR/init) and status files into DIR, takes the agent's connection, says "
    "what\n"
    "is wrong with its frames and sends messages. Port 0 (the default) is any free one. With --count the devices' "
    "files are\n"
    "in DIR/1, DIR/2, ..., ports and serial numbers count up from the first one's. Type help for the commands.\n";

struct Box {
    DeviceSim *device = nullptr;
    std::string dir;
    DeviceCfg cfg;
    SimLoop *loop = nullptr;      // for records added periodically; all boxes share it
    std::atomic<int> records = 0; // in the service file so far
    std::atomic<int> keep_s = 0;  // period of adding a record, in seconds; 0: none
};

static std::vector<std::unique_ptr<Box>> s_boxes;

static std::string sent(bool done)
{
    return done ? "" : "the agent is not connected";
}

static std::string write_cfg(Box *box)
{
    return device_write_file(box->dir + "/init", device_cfg_text(box->cfg)) ? "" : "cannot write";
}

static std::string add_services(Box *box, int count)
{
    for (int i = 0; i < count; i++) {
        if (!device_service_add(box->dir + "/service", device_service_record(++box->records)))
            return "cannot write";
    }
    return "";
}

static void keep_adding(Box *box, int period_s)
{
    if (period_s > 0 && box->keep_s == period_s) {
        add_services(box, 1);
        sim_loop_after(box->loop, period_s * 1000, [=] { keep_adding(box, period_s); });
    }
}

// part BYTES JSON
static std::string send_part(Box *box, const ConsoleLine &line)
{
    const std::string text = line.rest.substr(line.rest.find(' ') + 1);
    const std::string bytes = device_frame_bytes((unsigned)text.size(), text).substr(0, (size_t)line.number(0, 4));
    const bool done = device_sim_send_raw(box->device, bytes);
    device_sim_drop(box->device);
    return sent(done);
}

static std::string send_lie(Box *box, const ConsoleLine &line)
{
    const std::string text = line.rest.substr(line.rest.find(' ') + 1);
    return sent(
        device_sim_send_raw(box->device, device_frame_bytes((unsigned)strtoul(line.rest.c_str(), nullptr, 0), text)));
}

static std::string wait_for(Box *box, const ConsoleLine &line)
{
    const std::string type = line.word(0);
    const int timeout_ms = line.number(2, 30) * 1000;
    const bool came = type == "connection" ? device_sim_wait_connected(box->device, line.number(1, 1), timeout_ms)
                                           : device_sim_wait_for(box->device, type, line.number(1, 1), timeout_ms);
    return came ? "" : "nothing came";
}

static void show(Box *box)
{
    for (const DeviceFrame &frame : device_sim_transcript(box->device).all())
        printf("  %s %-22s %s\n", frame.time.c_str(), frame.type.c_str(), frame.wrong.c_str());
    fflush(stdout);
}

static std::vector<ConsoleCommand> message_commands(Box *box)
{
    DeviceSim *device = box->device;
    auto rest_of = [](const ConsoleLine &line) { return line.rest.substr(line.word(0).size()); };
    return {
        {"send", "JSON", "send a message",
         [=](const ConsoleLine &line) { return sent(device_sim_send(device, line.rest)); }},
        {"say", "TYPE", "send a message that is only a type: ping, online-status, service-status, init-cfg-changed",
         [=](const ConsoleLine &line) { return sent(device_sim_send(device, "{\"type\":\"" + line.word(0) + "\"}")); }},
        {"answer", "TYPE JSON", "answer each command of that type from now on, with its session",
         console_plain([=](const ConsoleLine &line) { device_sim_auto_answer(device, line.word(0), rest_of(line)); })},
        {"slow", "PAUSE_MS JSON", "send a message byte by byte",
         [=](const ConsoleLine &line) {
             return sent(device_sim_send_slowly(device, rest_of(line), line.number(0, 1)));
         }},
        {"part", "BYTES JSON", "send the beginning of a frame and close",
         [=](const ConsoleLine &line) { return send_part(box, line); }},
        {"lie", "LENGTH TEXT", "send a frame that claims this length",
         [=](const ConsoleLine &line) { return send_lie(box, line); }},
    };
}

static std::vector<ConsoleCommand> connection_commands(Box *box)
{
    DeviceSim *device = box->device;
    return {
        {"read", "on|off", "take what the agent sends, or leave it in the socket",
         console_plain([=](const ConsoleLine &line) { device_sim_set_reading(device, line.word(0) != "off"); })},
        {"drop", "", "close the connection", console_plain([=](const ConsoleLine &) { device_sim_drop(device); })},
        {"absent", "", "close it and listen no more",
         console_plain([=](const ConsoleLine &) { device_sim_absent(device); })},
        {"return", "", "listen again", console_plain([=](const ConsoleLine &) { device_sim_return(device); })},
        {"wait", "TYPE|connection [COUNT [SECONDS]]", "wait for frames, counted from the start",
         [=](const ConsoleLine &line) { return wait_for(box, line); }},
        {"show", "", "the frames so far", console_plain([=](const ConsoleLine &) { show(box); })},
    };
}

static void keep(Box *box, int period_s)
{
    if (box->keep_s.exchange(period_s) != period_s)
        keep_adding(box, period_s);
}

static std::vector<ConsoleCommand> file_commands(Box *box)
{
    return {
        {"service", "[COUNT]", "add records to the service status file",
         [=](const ConsoleLine &line) { return add_services(box, line.number(0, 1)); }},
        {"keep", "SECONDS", "add one each so many seconds from now on; 0 ends it",
         console_plain([=](const ConsoleLine &line) { keep(box, line.number(0, 0)); })},
        {"set", "KEY JSON", "change the init cfg (then: say init-cfg-changed)",
         [=](const ConsoleLine &line) {
             device_cfg_set(&box->cfg, line.word(0), line.rest.substr(line.rest.find(' ') + 1));
             return write_cfg(box);
         }},
        {"unset", "KEY", "take a key out of the init cfg",
         [=](const ConsoleLine &line) {
             device_cfg_remove(&box->cfg, line.word(0));
             return write_cfg(box);
         }},
    };
}

static std::vector<ConsoleCommand> box_commands(Box *box)
{
    std::vector<ConsoleCommand> commands;
    for (const auto &group : {message_commands(box), connection_commands(box), file_commands(box)})
        commands.insert(commands.end(), group.begin(), group.end());
    return commands;
}

// device N: the commands that follow are for the Nth one.
static std::string choose(size_t *chosen, int number)
{
    if (number < 1 || number > (int)s_boxes.size())
        return "there are " + std::to_string(s_boxes.size()) + " devices";
    *chosen = (size_t)number - 1;
    return "";
}

// The commands of one box, each carried out for the chosen one.
static std::vector<ConsoleCommand> chosen_commands(size_t *chosen)
{
    std::vector<std::vector<ConsoleCommand>> tables;
    for (const auto &box : s_boxes)
        tables.push_back(box_commands(box.get()));
    std::vector<ConsoleCommand> commands = tables[0];
    for (size_t row = 0; row < commands.size(); row++)
        commands[row].run = [=](const ConsoleLine &line) { return tables[*chosen][row].run(line); };
    commands.push_back({"device", "N", "which device the other commands are for",
                        [=](const ConsoleLine &line) { return choose(chosen, line.number(0, 0)); }});
    return commands;
}

static void set_from_options(int argc, char **argv, DeviceCfg *cfg)
{
    for (int i = 1; i + 1 < argc; i++) {
        const std::string value = argv[i + 1];
        const size_t equals = value.find('=');
        if (argv[i] == std::string("--set") && equals != std::string::npos)
            device_cfg_set(cfg, value.substr(0, equals), value.substr(equals + 1));
    }
}

// first, and the number at its end counted up by n: "SN00000001", "SN00000002", ...
static std::string serial_of(const std::string &first, int n)
{
    const size_t digits = first.find_last_not_of("0123456789") + 1;
    const std::string old = first.substr(digits);
    const std::string number = std::to_string(strtoull(old.c_str(), nullptr, 10) + (unsigned)n);
    return first.substr(0, digits) + std::string(old.size() - std::min(old.size(), number.size()), '0') + number;
}

static std::string cfg_text_of(const DeviceCfg &cfg, const std::string &key)
{
    for (const auto &row : cfg) {
        if (row.first == key)
            return row.second.size() > 1 ? row.second.substr(1, row.second.size() - 2) : "";
    }
    return "";
}

// Starts the nth device of count, counted from 0, and writes its files.
static bool box_start(Box *box, int argc, char **argv, int n, int count)
{
    const std::string dir = console_option(argc, argv, "--dir", "");
    const int port = console_option_number(argc, argv, "--port", 0);
    const std::string name = count > 1 ? "device " + std::to_string(n + 1) + ": " : "";
    DeviceOptions options;
    options.port = port ? port + n : 0;
    options.print = [name](const std::string &line) { console_print(name + line); };
    box->device = device_sim_start(options);
    if (!box->device)
        return false;
    box->dir = count > 1 ? dir + "/" + std::to_string(n + 1) : dir;
    box->cfg = device_cfg_default(box->dir, console_has_option(argc, argv, "--https"),
                                  console_option_number(argc, argv, "--nm-port", 0), device_sim_port(box->device));
    set_from_options(argc, argv, &box->cfg);
    if (n > 0) {
        char mac[32];
        snprintf(mac, sizeof(mac), "02:00:00:00:%02x:%02x", (n + 1) >> 8 & 0xff, (n + 1) & 0xff);
        device_cfg_set_text(&box->cfg, "dev-sn", serial_of(cfg_text_of(box->cfg, "dev-sn"), n));
        device_cfg_set_text(&box->cfg, "mac", mac);
    }
    if (count > 1)
        mkdir(box->dir.c_str(), 0755);
    if (!device_write_all(box->dir, box->cfg))
        return false;
    console_print(name + "the device listens on port " + std::to_string(device_sim_port(box->device)) +
                  ", its init cfg is " + box->dir + "/init");
    return true;
}

int main(int argc, char **argv)
{
    console_init();
    const bool has_dir = console_has_option(argc, argv, "--dir");
    const int count = console_option_number(argc, argv, "--count", 1);
    if (console_has_option(argc, argv, "--help") || !has_dir || count < 1) {
        printf("%s", k_usage);
        return !has_dir || count < 1;
    }
    SimLoop *loop = sim_loop_start();
    bool ready = true;
    for (int n = 0; n < count && ready; n++) {
        s_boxes.push_back(std::make_unique<Box>());
        s_boxes.back()->loop = loop;
        ready = box_start(s_boxes.back().get(), argc, argv, n, count);
    }
    size_t chosen = 0;
    const int status = ready ? console_run({chosen_commands(&chosen)}, console_option(argc, argv, "--script", "")) : 1;
    sim_loop_stop(loop);
    for (const auto &box : s_boxes)
        device_sim_stop(box->device);
    return status;
}
