// device_simulator - a simulated device, controlled by typed lines or a script. "help" lists them.
#include <atomic>
#include <stdio.h>
#include <stdlib.h>

#include "console.h"
#include "device_files.h"
#include "device_sim.h"
#include "sim_loop.h"

static const char k_usage[] =
    "device_simulator --dir DIR --nm-port N [--https] [--port N] [--set KEY=JSON]... [--script FILE]\n"
    "Plays the device: writes its init cfg (DIR/init) and status files into DIR, takes the agent's connection, says "
    "what\n"
    "is wrong with its frames and sends messages. Port 0 (the default) is any free one. Type help for the commands.\n";

struct Box {
    DeviceSim *device;
    std::string dir;
    DeviceCfg cfg;
    SimLoop *loop;            // for records added periodically
    std::atomic<int> records; // in the service file so far
    std::atomic<int> keep_s;  // period of adding a record, in seconds; 0: none
};

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

static void set_from_options(int argc, char **argv, DeviceCfg *cfg)
{
    for (int i = 1; i + 1 < argc; i++) {
        const std::string value = argv[i + 1];
        const size_t equals = value.find('=');
        if (argv[i] == std::string("--set") && equals != std::string::npos)
            device_cfg_set(cfg, value.substr(0, equals), value.substr(equals + 1));
    }
}

int main(int argc, char **argv)
{
    console_init();
    Box box = {nullptr, console_option(argc, argv, "--dir", ""), {}, nullptr, {0}, {0}};
    if (console_has_option(argc, argv, "--help") || box.dir.empty()) {
        printf("%s", k_usage);
        return box.dir.empty();
    }
    DeviceOptions options;
    options.port = console_option_number(argc, argv, "--port", 0);
    options.print = console_print;
    box.device = device_sim_start(options);
    if (!box.device)
        return 1;
    box.cfg = device_cfg_default(box.dir, console_has_option(argc, argv, "--https"),
                                 console_option_number(argc, argv, "--nm-port", 0), device_sim_port(box.device));
    set_from_options(argc, argv, &box.cfg);
    if (!device_write_all(box.dir, box.cfg))
        return 1;
    console_print("the device listens on port " + std::to_string(device_sim_port(box.device)) + ", its init cfg is " +
                  box.dir + "/init");
    box.loop = sim_loop_start();
    const int status = console_run({message_commands(&box), connection_commands(&box), file_commands(&box)},
                                   console_option(argc, argv, "--script", ""));
    sim_loop_stop(box.loop);
    device_sim_stop(box.device);
    return status;
}
