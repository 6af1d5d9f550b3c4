#include "nm_commands.h"

#include <map>
#include <stdio.h>

#include "nm_command.h"

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

static void queue(const NmTarget *target, const std::string &command)
{
    nm_sim_queue(target->nm, command, target->serial);
}

// strategy ACTION [MODE [PERIOD_S [LIMIT_KIB]]]
static std::string queue_strategy(NmTarget *target, const ConsoleLine &line)
{
    NmStrategy strategy;
    strategy.action = line.word(0, "set");
    strategy.mode = line.word(1);
    strategy.period_s = line.number(2, -1);
    strategy.limit_kib = line.number(3, -1);
    queue(target, nm_command_device_status(strategy));
    return "";
}

static std::string queue_status_period(NmTarget *target, const ConsoleLine &line)
{
    NmStrategy strategy;
    strategy.system_period_s = line.number(0, 120);
    queue(target, nm_command_device_status(strategy));
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

struct Misbehaviour {
    const char *word;
    NmFault http; // of every request
    NmFault udp;
};

static const Misbehaviour k_misbehaviours[] = {
    {"silent", {NM_FAULT_SILENCE, 0, -1, ""}, {NM_FAULT_SILENCE, 0, -1, ""}},
    {"late", {NM_FAULT_NONE, 3000, -1, ""}, {NM_FAULT_NONE, 3000, -1, ""}},
    {"refuse", {NM_FAULT_REFUSE, 0, -1, "refused on purpose"}, {}}, // there is no refusal over UDP
    {"wrong", {NM_FAULT_NO_JSON, 0, -1, ""}, {NM_FAULT_WORD, 0, -1, "nonsense"}},
    {"drop", {NM_FAULT_CLOSE, 0, -1, ""}, {NM_FAULT_SILENCE, 0, -1, ""}},
};

static std::string misbehave(NmSim *nm, const std::string &word)
{
    if (word == "none") {
        nm_sim_clear_faults(nm);
        return "";
    }
    std::string words = "misbehave takes: none";
    for (const Misbehaviour &row : k_misbehaviours) {
        if (word == row.word) {
            nm_sim_clear_faults(nm);
            nm_sim_set_fault(nm, "", row.http);
            nm_sim_set_fault(nm, "udp", row.udp);
            return "";
        }
        words += std::string(" ") + row.word;
    }
    return words;
}

std::string nm_commands_misbehaviour(NmSim *nm)
{
    const NmFault http = nm_sim_fault(nm, "");
    for (const Misbehaviour &row : k_misbehaviours) {
        if (http.kind == row.http.kind && http.delay_ms == row.http.delay_ms)
            return row.word;
    }
    return "none";
}

std::vector<ConsoleCommand> nm_commands_device(NmTarget *target)
{
    return {
        {"send", "JSON", "queue a command", console_plain([=](const ConsoleLine &line) { queue(target, line.rest); })},
        {"forward", "TYPE [SESSION]", "queue upgrade, backup, reboot, reset, log, ping, ... for the device",
         console_plain(
             [=](const ConsoleLine &line) { queue(target, nm_command_forward(line.word(0), line.word(1))); })},
        {"trigger", "SECONDS", "queue a new heartbeat period",
         console_plain([=](const ConsoleLine &line) { queue(target, nm_command_trigger(line.number(0, 6))); })},
        {"period", "SECONDS", "queue a new run status period",
         [=](const ConsoleLine &line) { return queue_status_period(target, line); }},
        {"strategy", "set|start|stop [MODE [PERIOD [KIB]]]", "queue a service report strategy",
         [=](const ConsoleLine &line) { return queue_strategy(target, line); }},
        {"web", "start|stop|wait [SECONDS]", "the remote-web tunnel",
         [=](const ConsoleLine &line) { return nm_tunnels_web(target->tunnels, target->serial, line); }},
        {"telnet", "start|stop|wait [SECONDS]", "the remote-telnet tunnel",
         [=](const ConsoleLine &line) { return nm_tunnels_telnet(target->tunnels, target->serial, line); }},
        {"rec", "", "ask for a new bring-up at the next heartbeat",
         console_plain([=](const ConsoleLine &) { nm_sim_ask_restart(target->nm, target->serial); })},
        {"misbehave", "silent|late|refuse|wrong|drop|none", "answer every device so from now on",
         [=](const ConsoleLine &line) { return misbehave(target->nm, line.word(0)); }},
    };
}

std::vector<ConsoleCommand> nm_commands_own(NmTarget *target)
{
    NmSim *nm = target->nm;
    return {
        {"device", "[SERIAL]", "which device the commands above are for; without SERIAL: the one that asks first",
         console_plain([=](const ConsoleLine &line) { target->serial = line.word(0); })},
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
