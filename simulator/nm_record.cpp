#include "nm_record.h"

#include "json_text.h"
#include "nm_view.h"

void nm_say(NmSim *nm, const std::string &line)
{
    if (nm->options.print)
        nm->options.print(line);
}

// One line for the request, then what its body means to a person who watches.
static void say_request(NmSim *nm, const NmRequest &request, const std::string &shown)
{
    const std::string what = request.name == "udp" ? "heartbeat over UDP" : request.line;
    nm_say(nm, what + " (" + std::to_string(request.body.size()) + " bytes, " +
                   (request.wrong.empty() ? "all right" : "WRONG: " + json_one_line(request.wrong, 600)) + ") -> " +
                   json_one_line(shown, 300));
    if (request.name == "runstatus") {
        NmRequest &last = nm->last_run_status[request.serial];
        nm_say(nm, nm_view_run_status(request.body, last.body, request.at_ms - last.at_ms));
        last = request;
    } else if (request.name == "working/services") {
        nm_say(nm, nm_view_services(request.body));
    } else if (request.name != "udp" && request.name != "heartbeat" && request.name != "handshake") {
        nm_say(nm, "  " + json_one_line(request.body, 600));
    }
}

void nm_record(NmSim *nm, NmRequest request, const std::string &shown)
{
    request.time = sim_clock();
    request.at_ms = monotonic_ms();
    request.answer = shown;
    if (nm->options.print)
        say_request(nm, request, shown);
    if (nm->options.watch)
        nm->options.watch(request);
    nm->transcript.add(std::move(request));
}
