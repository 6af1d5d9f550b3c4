// nm_simulator - a simulated NM, controlled by typed lines or a script. "help" lists them.
#include <map>
#include <stdio.h>

#include "console.h"
#include "nm_command.h"
#include "nm_sim.h"
#include "nm_tunnels.h"

static const char k_usage[] =
    "nm_simulator [--https] [--ip A] [--port N] [--udp-port N] [--serial S] [--web-port N] [--telnet-port N]\n"
    "             [--cert FILE --key FILE] [--client-ca FILE] [--script FILE]\n"
    "Plays the management server: answers the device's posts and its UDP heartbeats, says what is wrong with them, "
    "and\n"
    "hands out commands. Port 0 (the default) is any free one; --web-port and --telnet-port are where local browsers "
    "and\n"
    "telnet clients enter a tunnel. --cert (PEM, with its chain) and --key are for https and the tunnels, instead of "
    "a\n"
    "self-signed certificate made at the start; --client-ca: clients have to show a certificate of that CA. Type help "
    "for\n"
    "the commands.\n";

static const std::map<std::string, NmFaultKind> k_fault_words = {
    {"delay", NM_FAULT_NONE},      {"silence", NM_FAULT_SILENCE},   {"refuse", NM_FAULT_REFUSE},
    {"404", NM_FAULT_STATUS},      {"junk", NM_FAULT_JUNK},         {"close", NM_FAULT_CLOSE},
    {"half", NM_FAULT_HALF},       {"two", NM_FAULT_TWO_SEGMENTS},  {"long", NM_FAULT_LONG},
    {"http10", NM_FAULT_HTTP10},   {"nojson", NM_FAULT_NO_JSON},    {"empty", NM_FAULT_EMPTY},
    {"chunked", NM_FAULT_CHUNKED}, {"body", NM_FAULT_BODY},         {"word", NM_FAULT_WORD},
    {"twice", NM_FAULT_TWICE},     {"stranger", NM_FAULT_STRANGER},
};

// fault NAME KIND [TIMES] [DELAY_MS] [TEXT...]; NAME "all" stands for every HTTP request.
static std::string set_fault(NmSim *nm, const ConsoleLine &line)
{
    auto kind = k_fault_words.find(line.word(1));
    if (kind == k_fault_words.end()) {
        std::string words;
        for (const auto &row : k_fault_words)
            words += " " + row.first;
        return "kinds of fault:" + words;
    }
    NmFault fault;
    fault.kind = kind->second;
    fault.times = line.number(2, -1);
    fault.delay_ms = line.number(3, 0);
    for (size_t i = 4; i < line.words.size(); i++)
        fault.text += (i > 4 ? " " : "") + line.words[i];
    nm_sim_set_fault(nm, line.word(0) == "all" ? "" : line.word(0), fault);
    return "";
}

static std::string set_activation(NmSim *nm, const ConsoleLine &line)
{
    NmActivation activation;
    activation.status = line.number(0, 200);
    if (activation.status == 304) {
        activation.redirect_ip = line.word(1);
        activation.redirect_port = line.number(2, 0);
    } else {
        activation.error = line.rest.substr(line.word(0).size());
        activation.error.erase(0, activation.error.find_first_not_of(' '));
    }
    nm_sim_set_activation(nm, activation);
    return "";
}

// strategy ACTION [MODE [PERIOD_S [LIMIT_KIB]]]
static std::string queue_strategy(NmSim *nm, const ConsoleLine &line)
{
    NmStrategy strategy;
    strategy.action = line.word(0, "set");
    strategy.mode = line.word(1);
    strategy.period_s = line.number(2, -1);
    strategy.limit_kib = line.number(3, -1);
    nm_sim_queue(nm, nm_command_device_status(strategy));
    return "";
}

static std::string queue_status_period(NmSim *nm, const ConsoleLine &line)
{
    NmStrategy strategy;
    strategy.system_period_s = line.number(0, 120);
    nm_sim_queue(nm, nm_command_device_status(strategy));
    return "";
}

static std::string show_counts(NmSim *nm)
{
    std::map<std::string, int> counts;
    for (const NmRequest &request : nm_sim_transcript(nm).all())
        counts[request.name]++;
    for (const auto &row : counts)
        printf("  %-20s %d\n", row.first.c_str(), row.second);
    printf("  connections %d, commands waiting %d\n", nm_sim_connections(nm), nm_sim_queued(nm));
    const std::string wrong = nm_sim_wrong(nm);
    printf("%s", wrong.empty() ? "  nothing wrong\n" : wrong.c_str());
    fflush(stdout);
    return "";
}

static std::string wait_for(NmSim *nm, const ConsoleLine &line)
{
    const bool came = nm_sim_wait_for(nm, line.word(0), line.number(1, 1), line.number(2, 30) * 1000);
    return came ? "" : "nothing came";
}

// What NM hands out to the device.
static std::vector<ConsoleCommand> device_commands(NmSim *nm, NmTunnels *tunnels)
{
    return {
        {"send", "JSON", "queue a command",
         console_plain([nm](const ConsoleLine &line) { nm_sim_queue(nm, line.rest); })},
        {"forward", "TYPE [SESSION]", "queue upgrade, backup, reboot, reset, log, ping, ... for the device",
         console_plain(
             [nm](const ConsoleLine &line) { nm_sim_queue(nm, nm_command_forward(line.word(0), line.word(1))); })},
        {"trigger", "SECONDS", "queue a new heartbeat period",
         console_plain([nm](const ConsoleLine &line) { nm_sim_queue(nm, nm_command_trigger(line.number(0, 6))); })},
        {"period", "SECONDS", "queue a new run status period",
         [nm](const ConsoleLine &line) { return queue_status_period(nm, line); }},
        {"strategy", "set|start|stop [MODE [PERIOD [KIB]]]", "queue a service report strategy",
         [nm](const ConsoleLine &line) { return queue_strategy(nm, line); }},
        {"web", "start|stop|wait [SECONDS]", "the remote-web tunnel",
         [tunnels](const ConsoleLine &line) { return nm_tunnels_web(tunnels, line); }},
        {"telnet", "start|stop|wait [SECONDS]", "the remote-telnet tunnel",
         [tunnels](const ConsoleLine &line) { return nm_tunnels_telnet(tunnels, line); }},
        {"rec", "", "ask for a new bring-up at the next heartbeat",
         console_plain([nm](const ConsoleLine &) { nm_sim_ask_restart(nm); })},
    };
}

static std::vector<ConsoleCommand> own_commands(NmSim *nm)
{
    return {
        {"activation", "200|201|304 IP PORT|STATUS ERROR", "how the next activations are answered",
         [nm](const ConsoleLine &line) { return set_activation(nm, line); }},
        {"fault", "NAME KIND [TIMES [DELAY_MS [TEXT]]]", "misbehave for active, heartbeat, ..., udp, accept or all",
         [nm](const ConsoleLine &line) { return set_fault(nm, line); }},
        {"good", "", "end all misbehaviour", console_plain([nm](const ConsoleLine &) { nm_sim_clear_faults(nm); })},
        {"absent", "", "close everything", console_plain([nm](const ConsoleLine &) { nm_sim_absent(nm); })},
        {"return", "", "open it again", console_plain([nm](const ConsoleLine &) { nm_sim_return(nm); })},
        {"drop", "", "reset the connections",
         console_plain([nm](const ConsoleLine &) { nm_sim_drop_connections(nm); })},
        {"wait", "NAME [COUNT [SECONDS]]", "wait for requests, counted from the start",
         [nm](const ConsoleLine &line) { return wait_for(nm, line); }},
        {"show", "", "what came so far and what was wrong", [nm](const ConsoleLine &) { return show_counts(nm); }},
    };
}

int main(int argc, char **argv)
{
    console_init();
    if (console_has_option(argc, argv, "--help")) {
        printf("%s", k_usage);
        return 0;
    }
    NmOptions options;
    options.https = console_has_option(argc, argv, "--https");
    options.tls.cert = console_option(argc, argv, "--cert", "");
    options.tls.key = console_option(argc, argv, "--key", "");
    options.tls.client_ca = console_option(argc, argv, "--client-ca", "");
    options.ip = console_option(argc, argv, "--ip", "127.0.0.1");
    options.port = console_option_number(argc, argv, "--port", 0);
    options.udp_port = console_option_number(argc, argv, "--udp-port", 0);
    options.serial = console_option(argc, argv, "--serial", "");
    options.print = console_print;
    NmSim *nm = nm_sim_start(options);
    if (!nm)
        return 1;
    console_print(std::string("NM listens on ") + (options.https ? "https" : "http") + "://" + options.ip + ":" +
                  std::to_string(nm_sim_port(nm)) + ", detection on UDP port " + std::to_string(nm_sim_udp_port(nm)));
    NmTunnels tunnels = {nm, console_option_number(argc, argv, "--web-port", 0),
                         console_option_number(argc, argv, "--telnet-port", 0), nullptr, nullptr};
    const int status =
        console_run({device_commands(nm, &tunnels), own_commands(nm)}, console_option(argc, argv, "--script", ""));
    tunnels.web.reset();
    tunnels.telnet.reset();
    nm_sim_stop(nm);
    return status;
}
