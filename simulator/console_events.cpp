#include "console_events.h"

#include <deque>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/http.h>
#include <map>
#include <mutex>
#include <openssl/evp.h>
#include <set>
#include <sys/time.h>

#include "json_text.h"

constexpr size_t KEPT_MAX = 2000;               // requests
constexpr size_t BODY_SHOWN_MAX = 64 * 1024;    // bytes
constexpr size_t UNSENT_MAX = 32 * 1024 * 1024; // bytes; a page that is slower is let go and joins anew
constexpr int STREAM_IDLE_S = 24 * 3600;

struct ConsoleEvents {
    SimLoop *loop;

    // Loop thread only.
    std::set<evhttp_request *> streams;
    std::deque<std::string> kept;
    std::map<std::string, std::string> states; // the latest event by kind

    std::mutex lock;                 // guards the member below
    std::deque<std::string> arrived; // from other threads, in order
};

ConsoleEvents *console_events_new(SimLoop *loop)
{
    ConsoleEvents *events = new ConsoleEvents;
    events->loop = loop;
    return events;
}

void console_events_end(ConsoleEvents *events)
{
    for (evhttp_request *stream : events->streams) {
        evhttp_connection_set_closecb(evhttp_request_get_connection(stream), nullptr, nullptr);
        evhttp_send_reply_end(stream);
    }
    events->streams.clear();
}

void console_events_free(ConsoleEvents *events)
{
    delete events;
}

static void stream_send(evhttp_request *stream, const std::string &event)
{
    evhttp_connection *conn = evhttp_request_get_connection(stream);
    if (!conn || evbuffer_get_length(bufferevent_get_output(evhttp_connection_get_bufferevent(conn))) > UNSENT_MAX)
        return;
    evbuffer *chunk = evbuffer_new();
    evbuffer_add_printf(chunk, "data: %s\n\n", event.c_str());
    evhttp_send_reply_chunk(stream, chunk);
    evbuffer_free(chunk);
}

static void send_all(ConsoleEvents *events, const std::string &event)
{
    for (evhttp_request *stream : events->streams)
        stream_send(stream, event);
}

// The browser has gone. The library has let go of the request when it found that out by itself.
static void on_stream_end(evhttp_connection *conn, void *arg)
{
    ConsoleEvents *events = (ConsoleEvents *)arg;
    for (evhttp_request *stream : events->streams) {
        evhttp_connection *own = evhttp_request_get_connection(stream);
        if (own && own != conn)
            continue;
        events->streams.erase(stream);
        if (!own)
            evhttp_send_reply_end(stream); // frees it
        return;
    }
}

void console_events_join(ConsoleEvents *events, evhttp_request *request)
{
    evhttp_connection *conn = evhttp_request_get_connection(request);
    evhttp_connection_set_timeout(conn, STREAM_IDLE_S);
    evhttp_connection_set_closecb(conn, on_stream_end, events);
    evhttp_add_header(evhttp_request_get_output_headers(request), "Content-Type", "text/event-stream");
    evhttp_send_reply_start(request, HTTP_OK, "OK");
    events->streams.insert(request);
    stream_send(request, "{\"kind\":\"hello\"}");
    for (const std::string &event : events->kept)
        stream_send(request, event);
    for (const auto &state : events->states)
        stream_send(request, state.second);
}

static void take_arrived(ConsoleEvents *events)
{
    std::deque<std::string> arrived;
    {
        std::lock_guard<std::mutex> guard(events->lock);
        arrived.swap(events->arrived);
    }
    for (std::string &event : arrived) {
        send_all(events, event);
        events->kept.push_back(std::move(event));
        if (events->kept.size() > KEPT_MAX)
            events->kept.pop_front();
    }
}

static double wall_ms()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return (double)now.tv_sec * 1000 + (double)(now.tv_usec / 1000);
}

static std::string request_event(const NmRequest &request)
{
    cJSON *root = cJSON_CreateObject();
    cJSON_AddStringToObject(root, "kind", "request");
    cJSON_AddNumberToObject(root, "ms", wall_ms());
    cJSON *headers = cJSON_CreateArray();
    for (const std::string &line : request.headers)
        cJSON_AddItemToArray(headers, cJSON_CreateString(line.c_str()));
    const bool whole = request.body.size() <= BODY_SHOWN_MAX;
    const std::pair<const char *, const std::string> texts[] = {
        {"serial", request.serial},
        {"name", request.name},
        {"time", request.time},
        {"line", request.line},
        {"body", whole ? request.body : request.body.substr(0, BODY_SHOWN_MAX) + " ..."},
        {"wrong", request.wrong},
        {"answer", json_one_line(request.answer, BODY_SHOWN_MAX)},
    };
    for (const auto &row : texts)
        cJSON_AddStringToObject(root, row.first, row.second.c_str());
    cJSON_AddItemToObject(root, "headers", headers);
    cJSON_AddBoolToObject(root, "onPurpose", request.on_purpose);
    return json_print_and_delete(root);
}

void console_events_request(ConsoleEvents *events, const NmRequest &request)
{
    const std::string event = request_event(request);
    {
        std::lock_guard<std::mutex> guard(events->lock);
        events->arrived.push_back(event);
    }
    sim_loop_after(events->loop, 0, [events] { take_arrived(events); });
}

void console_events_state(ConsoleEvents *events, const std::string &kind, const std::string &value)
{
    const std::string event = "{\"kind\":\"" + kind + "\",\"value\":" + value + "}";
    std::string &latest = events->states[kind];
    if (latest == event)
        return;
    latest = event;
    send_all(events, event);
}

void console_events_terminal(ConsoleEvents *events, const std::string &serial, const std::string &bytes, bool open)
{
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    text.resize(
        (size_t)EVP_EncodeBlock((unsigned char *)&text[0], (const unsigned char *)bytes.data(), (int)bytes.size()));
    cJSON *root = cJSON_CreateObject();
    cJSON_AddStringToObject(root, "kind", "terminal");
    cJSON_AddStringToObject(root, "serial", serial.c_str());
    cJSON_AddStringToObject(root, "bytes", text.c_str());
    cJSON_AddBoolToObject(root, "open", open);
    send_all(events, json_print_and_delete(root));
}
