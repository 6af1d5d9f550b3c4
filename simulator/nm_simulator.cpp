// nm_simulator - a simulated NM, controlled by typed lines or a script. "help" lists them.
#include <fstream>
#include <stdio.h>

#include "console.h"
#include "console_page.h"
#include "nm_commands.h"
#include "nm_view.h"

static const char k_usage[] =
    "nm_simulator [--https] [--ip A] [--port N] [--udp-port N] [--serial S] [--web-port N] [--telnet-port N]\n"
    "             [--cert FILE --key FILE] [--client-ca FILE] [--console PORT] [--script FILE] [--transcript FILE]\n"
    "Plays the management server: answers the device's posts and its UDP heartbeats, says what is wrong with them, "
    "and\n"
    "hands out commands. Port 0 (the default) is any free one; --web-port and --telnet-port are where local browsers "
    "and\n"
    "telnet clients enter a tunnel. --cert (PEM, with its chain) and --key are for https and the tunnels, instead of "
    "a\n"
    "self-signed certificate made at the start; --client-ca: clients have to show a certificate of that CA. --console\n"
    "serves the workbench on 127.0.0.1, for a browser. --transcript: each HTTP request and its answer go to that file, "
    "a\n"
    "line of JSON each. Type help for the commands.\n";

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
    const bool has_page = console_has_option(argc, argv, "--console");
    ConsolePage *page = has_page ? console_page_new() : nullptr;
    std::ofstream transcript(console_option(argc, argv, "--transcript", ""));
    options.watch = [page, &transcript](const NmRequest &request) {
        if (page)
            console_page_request(page, request);
        if (transcript.is_open() && !request.line.empty())
            transcript << nm_view_line(request) << std::endl;
    };
    NmSim *nm = nm_sim_start(options);
    if (!nm)
        return 1;
    console_print(std::string("NM listens on ") + (options.https ? "https" : "http") + "://" + options.ip + ":" +
                  std::to_string(nm_sim_port(nm)) + ", detection on UDP port " + std::to_string(nm_sim_udp_port(nm)));
    NmTunnels tunnels(nm, console_option_number(argc, argv, "--web-port", 0),
                      console_option_number(argc, argv, "--telnet-port", 0));
    if (page && !console_page_serve(page, console_option_number(argc, argv, "--console", 0), nm, &tunnels))
        return 1;
    NmTarget target = {nm, &tunnels, ""};
    const int status = console_run({nm_commands_device(&target), nm_commands_own(&target)},
                                   console_option(argc, argv, "--script", ""));
    console_page_stop(page);
    tunnels.web.clear();
    tunnels.telnet.clear();
    nm_sim_stop(nm);
    console_page_free(page);
    return status;
}
