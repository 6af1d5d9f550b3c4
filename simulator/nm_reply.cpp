#include "nm_reply.h"

#include "json_text.h"
#include "nm_check.h"

static std::string refusal_body(int status, const std::string &error)
{
    cJSON *root = cJSON_CreateObject();
    cJSON_AddNumberToObject(root, "status", status);
    cJSON_AddStringToObject(root, "error", error.c_str());
    return json_print_and_delete(root);
}

static void add_redirection(cJSON *result, const NmActivation &activation)
{
    cJSON *array = cJSON_AddArrayToObject(result, "redirection");
    cJSON *other = cJSON_CreateObject();
    cJSON_AddStringToObject(other, "type", "SIP");
    cJSON_AddStringToObject(other, "ip", "192.0.2.1");
    cJSON_AddItemToArray(array, other);
    if (!activation.redirect_ip.empty()) {
        cJSON *nms = cJSON_CreateObject();
        cJSON_AddStringToObject(nms, "type", "NMS");
        cJSON_AddStringToObject(nms, "ip", activation.redirect_ip.c_str());
        cJSON_AddNumberToObject(nms, "port", activation.redirect_port);
        cJSON_AddItemToArray(array, nms);
    }
}

static std::string activation_body(const NmSim &nm)
{
    const NmActivation &activation = nm.activation;
    if (activation.status != 200 && activation.status != 201 && activation.status != 304)
        return refusal_body(activation.status, activation.error);
    cJSON *root = cJSON_CreateObject();
    cJSON_AddNumberToObject(root, "status", activation.status);
    cJSON *result = cJSON_AddObjectToObject(root, "result");
    if (activation.status == 304) {
        add_redirection(result, activation);
    } else {
        cJSON_AddStringToObject(result, "host", (activation.host.empty() ? nm.options.ip : activation.host).c_str());
        cJSON_AddNumberToObject(result, "port", activation.port == -2 ? nm.options.udp_port : activation.port);
    }
    return json_print_and_delete(root);
}

// What waits for the device alone comes before what waits for any device.
static NmDevice *device_with_commands_locked(NmSim *nm, const std::string &serial)
{
    for (const std::string &key : {serial, std::string()}) {
        auto found = nm->devices.find(key);
        if (found != nm->devices.end() && !found->second.commands.empty())
            return &found->second;
    }
    return nullptr;
}

// The heartbeat's result.
static std::string word_locked(NmSim *nm, const std::string &serial)
{
    for (const std::string &key : {serial, std::string()}) {
        auto found = nm->devices.find(key);
        if (found != nm->devices.end() && found->second.restart_wanted) {
            found->second.restart_wanted = false;
            return "rec";
        }
    }
    return device_with_commands_locked(nm, serial) ? "ack" : "ACTIVE";
}

// One command per handshake, in the order queued. A command that would not arrive because of the fault stays queued.
static std::string handshake_body_locked(NmSim *nm, const std::string &serial, NmFaultKind fault)
{
    const bool arrives = fault == NM_FAULT_NONE || fault == NM_FAULT_TWO_SEGMENTS || fault == NM_FAULT_CHUNKED;
    NmDevice *device = device_with_commands_locked(nm, serial);
    if (!device || !arrives)
        return "{\"status\":200,\"result\":{\"payload\":[]}}";
    const std::string command = device->commands.front();
    device->commands.pop_front();
    return "{\"status\":200,\"result\":{\"payload\":[" + command + "]}}";
}

static std::string session_body(const std::string &body)
{
    JsonTree message = json_parse(body);
    cJSON *root = cJSON_CreateObject();
    cJSON_AddNumberToObject(root, "status", 200);
    cJSON *result = cJSON_AddObjectToObject(root, "result");
    if (cJSON_HasObjectItem(message.get(), "sessionid"))
        cJSON_AddStringToObject(result, "sessionid", json_text(message.get(), "sessionid").c_str());
    return json_print_and_delete(root);
}

static std::string good_body_locked(NmSim *nm, const std::string &name, const HttpRequest &request,
                                    const NmFault &fault)
{
    const std::string serial = nm_request_serial(request.path);
    if (name == "active")
        return activation_body(*nm);
    if (name == "handshake")
        return handshake_body_locked(nm, serial, fault.kind);
    if (name == "heartbeat") {
        const std::string word = fault.kind == NM_FAULT_WORD ? fault.text : word_locked(nm, serial);
        return "{\"status\":200,\"result\":\"" + word + "\"}";
    }
    return session_body(request.body);
}

NmFault nm_fault_take_locked(NmSim *nm, const std::string &name)
{
    auto found = nm->faults.find(name);
    if (found == nm->faults.end() && name != "udp" && name != "accept")
        found = nm->faults.find("");
    if (found == nm->faults.end())
        return NmFault();
    const NmFault fault = found->second;
    if (fault.times > 0 && --found->second.times == 0)
        nm->faults.erase(found);
    return fault;
}

static std::string padded(const std::string &body)
{
    return body.substr(0, body.size() - 1) + ",\"pad\":\"" + std::string(4000, 'x') + "\"}";
}

// The answer sent under a fault; body is the one of a good answer.
static std::string answer_of_fault(const NmFault &fault, const std::string &body)
{
    const std::string good = http_answer(200, body);
    switch (fault.kind) {
    case NM_FAULT_NONE:
    case NM_FAULT_WORD:
    case NM_FAULT_TWICE:
    case NM_FAULT_STRANGER:
    case NM_FAULT_TWO_SEGMENTS:
        return good;
    case NM_FAULT_SILENCE:
    case NM_FAULT_CLOSE:
        return "";
    case NM_FAULT_REFUSE:
        return http_answer(200, refusal_body(500, fault.text));
    case NM_FAULT_STATUS:
        return http_answer(404, "");
    case NM_FAULT_JUNK:
        return "\x16\x03no such thing as an answer\r\n\r\n{";
    case NM_FAULT_HALF:
        return good.substr(0, good.size() / 2);
    case NM_FAULT_LONG:
        return http_answer(200, padded(body));
    case NM_FAULT_HTTP10:
        return "HTTP/1.0" + good.substr(8);
    case NM_FAULT_NO_JSON:
        return http_answer(200, "no object here");
    case NM_FAULT_EMPTY:
        return http_answer(200, "");
    case NM_FAULT_CHUNKED:
        return http_answer_chunked(body);
    case NM_FAULT_BODY:
        return http_answer(200, fault.text);
    }
    return good;
}

NmReply nm_reply_request_locked(NmSim *nm, const std::string &name, const HttpRequest &request)
{
    const NmFault fault = nm_fault_take_locked(nm, name);
    const std::string body = good_body_locked(nm, name, request, fault);
    NmReply reply;
    reply.bytes = answer_of_fault(fault, body);
    if (fault.kind == NM_FAULT_TWO_SEGMENTS) {
        const size_t first = reply.bytes.size() - body.size() / 2;
        reply.second = reply.bytes.substr(first);
        reply.bytes.resize(first);
    }
    reply.shown = body;
    if (reply.bytes != http_answer(200, body))
        reply.shown = "on purpose: " + (reply.bytes.empty() ? "nothing" : reply.bytes);
    reply.close = fault.kind == NM_FAULT_CLOSE;
    reply.delay_ms = fault.delay_ms;
    reply.on_purpose = fault.kind != NM_FAULT_NONE || fault.delay_ms > 0;
    return reply;
}

NmReply nm_reply_datagram_locked(NmSim *nm, const std::string &serial)
{
    const NmFault fault = nm_fault_take_locked(nm, "udp");
    NmReply reply;
    if (fault.kind != NM_FAULT_SILENCE)
        reply.bytes = fault.kind == NM_FAULT_WORD ? fault.text : word_locked(nm, serial);
    reply.shown = reply.bytes.empty() ? "nothing" : reply.bytes;
    reply.delay_ms = fault.delay_ms;
    reply.on_purpose = fault.kind != NM_FAULT_NONE || fault.delay_ms > 0;
    reply.twice = fault.kind == NM_FAULT_TWICE;
    reply.stranger = fault.kind == NM_FAULT_STRANGER;
    return reply;
}
