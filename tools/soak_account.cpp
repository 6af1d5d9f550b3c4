#include "soak_account.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <stdlib.h>
#include <string.h>

#include "json_text.h"
#include "soak_log.h"
#include "soak_state.h"

struct Result {
    std::string name; // the last part of NM's path
    std::string body; // as it has to arrive; freed on arrival
    int arrivals = 0;
    int acks = 0;
    bool ack_true = false;
    bool excused = false; // a fault closed the device link while it waited for its ack

    bool is_waiting() const
    {
        return acks == 0 && !excused;
    }
};

static std::atomic<bool> s_synchronised{true};
static std::atomic<bool> s_online{false};

static std::mutex s_lock;               // guards what follows; held while a frame is sent or the device link is closed
static std::map<int, Result> s_results; // by the number that stands in them
static std::string s_command;           // session of the last command that the device has received

void account_send(int number, const std::string &name, const std::string &body, const std::string &frame)
{
    Result result;
    result.name = name;
    result.body = body;
    std::lock_guard<std::mutex> guard(s_lock);
    if (s_synchronised && device_sim_send(g_soak.stage->device, frame)) {
        s_results[number] = result;
        soak_count("sent");
    }
}

// The result whose number stands in text behind mark; nullptr (a problem) when there is none.
static Result *result_locked(const std::string &text, const char *mark)
{
    const size_t at = text.find(mark);
    const auto found = s_results.find(at == std::string::npos ? -1 : atoi(text.c_str() + at + strlen(mark)));
    if (found == s_results.end()) {
        soak_problem("nobody has sent the result of: " + text);
        return nullptr;
    }
    return &found->second;
}

static void request_locked(const NmRequest &request)
{
    soak_count("NM " + request.name);
    if (!request.wrong.empty())
        soak_problem(request.name + ": " + request.wrong);
    const bool alarm = request.name == "alarm";
    if (!alarm && request.name.find("Result") == std::string::npos)
        return;
    Result *result = result_locked(request.body, alarm ? "\"id\":\t" : "\"sessionid\":\"");
    if (result && ++result->arrivals == 1) {
        soak_count("arrived");
        if (request.name != result->name || request.body != result->body)
            soak_problem("changed on its way to NM: " + result->body.substr(0, 100));
        result->body = std::string();
    }
}

static void ack_locked(const DeviceFrame &frame)
{
    Result *result = result_locked(frame.text, frame.type == "alarm-ack" ? "\"msgId\":" : "\"sessionid\":\"");
    if (result) {
        result->acks++;
        result->ack_true = text_has(frame.text, "\"result\":true");
        soak_count(result->ack_true ? "acked true" : "acked false");
    }
}

static void frame_locked(const DeviceFrame &frame)
{
    soak_count("device " + frame.type);
    if (!frame.wrong.empty())
        soak_problem(frame.type + ": " + frame.wrong);
    if (frame.type == "online-status-notify")
        s_online = text_has(frame.text, "\"online\"");
    else if (frame.type == "reboot")
        s_command = json_text(json_parse(frame.text).get(), "sessionid");
    else if (text_has(frame.type, "-ack"))
        ack_locked(frame);
}

void account_update()
{
    const std::vector<DeviceFrame> frames = device_sim_transcript(g_soak.stage->device).take();
    const std::vector<NmRequest> requests = nm_sim_transcript(g_soak.stage->nm).take();
    std::lock_guard<std::mutex> guard(s_lock);
    std::for_each(requests.begin(), requests.end(), request_locked);
    std::for_each(frames.begin(), frames.end(), frame_locked);
}

int account_waiting()
{
    std::lock_guard<std::mutex> guard(s_lock);
    return (int)std::count_if(s_results.begin(), s_results.end(),
                              [](const auto &row) { return row.second.is_waiting(); });
}

void account_disconnect(const std::function<void()> &disconnect)
{
    std::lock_guard<std::mutex> guard(s_lock);
    for (auto &row : s_results) {
        if (row.second.is_waiting()) {
            row.second.excused = true;
            soak_count("excused");
        }
    }
    s_synchronised = false;
    disconnect();
}

bool account_is_synchronised()
{
    return s_synchronised;
}

void account_set_synchronised()
{
    s_synchronised = true;
}

bool account_is_online()
{
    return s_online;
}

bool account_has_command(const std::string &session)
{
    std::lock_guard<std::mutex> guard(s_lock);
    return s_command == session;
}

static std::string wrong_with(const Result &result)
{
    if (result.arrivals > 1 || result.acks > 1)
        return "twice at NM, or acknowledged twice";
    if (result.ack_true && result.arrivals == 0)
        return "acknowledged, but NM has not received it";
    if (result.is_waiting())
        return result.arrivals > 0 ? "no ack, though NM has received it" : "no ack, lost";
    return "";
}

void account_judge()
{
    std::lock_guard<std::mutex> guard(s_lock);
    for (const auto &row : s_results) {
        const Result &result = row.second;
        const std::string wrong = wrong_with(result);
        if (!wrong.empty())
            soak_problem(result.name + " " + std::to_string(row.first) + ": " + wrong);
        if (result.excused && result.acks == 0 && result.arrivals == 0)
            soak_count("lost and excused");
    }
}
