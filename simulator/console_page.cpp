#include "console_page.h"

#include <event2/buffer.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string.h>

#include "console_bundle.h"
#include "console_events.h"
#include "console_terminal.h"
#include "json_text.h"
#include "sim_socket.h"

constexpr int STATE_POLL_MS = 300;    // tunnels and misbehaviour
constexpr int POST_MAX = 1024 * 1024; // bytes
static const char k_policy[] = "default-src 'self'; style-src 'self' 'unsafe-inline'; img-src 'self' data:; "
                               "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

struct ConsolePage {
    SimLoop *loop;
    ConsoleEvents *events;

    // Loop thread only.
    ConsoleTerminals *terminals = nullptr;
    evhttp *http = nullptr; // nullptr: not open
    int port = 0;
    NmSim *nm = nullptr;
    NmTunnels *tunnels = nullptr;
};

static const char k_xterm_modules[] = "/usr/share/nodejs/xterm/lib";

struct PageFile {
    const char *path;
    const char *type;
    const char *file;
    const char *package; // Debian's, whose file it is; "": ours
};

static const PageFile k_files[] = {
    {"/", "text/html; charset=utf-8", CONSOLE_DIR "/workbench.html", ""},
    {"/workbench.css", "text/css", CONSOLE_DIR "/workbench.css", ""},
    {"/workbench.js", "text/javascript", CONSOLE_DIR "/workbench.js", ""},
    {"/devices.js", "text/javascript", CONSOLE_DIR "/devices.js", ""},
    {"/charts.js", "text/javascript", CONSOLE_DIR "/charts.js", ""},
    {"/terminal.js", "text/javascript", CONSOLE_DIR "/terminal.js", ""},
    {"/lib/chart.js", "text/javascript", "/usr/share/javascript/chart.js/chart.min.js", "libjs-chart.js"},
    {"/lib/xterm.js", "text/javascript", k_xterm_modules, "node-xterm"},
    {"/lib/xterm.css", "text/css", "/usr/share/javascript/xterm/xterm.css", "libjs-xterm"},
};

ConsolePage *console_page_new()
{
    ConsolePage *page = new ConsolePage;
    page->loop = sim_loop_start();
    page->events = console_events_new(page->loop);
    return page;
}

void console_page_request(ConsolePage *page, const NmRequest &request)
{
    console_events_request(page->events, request);
}

static void answer(evhttp_request *request, int status, const char *type, const std::string &body)
{
    evkeyvalq *headers = evhttp_request_get_output_headers(request);
    evhttp_add_header(headers, "Content-Type", type);
    evhttp_add_header(headers, "Cache-Control", "no-store");
    evhttp_add_header(headers, "Content-Security-Policy", k_policy);
    evhttp_add_header(headers, "X-Content-Type-Options", "nosniff");
    evhttp_add_header(headers, "Referrer-Policy", "no-referrer");
    evbuffer_add(evhttp_request_get_output_buffer(request), body.data(), body.size());
    evhttp_send_reply(request, status, nullptr, nullptr);
}

// A page of another origin, or a host name that somebody made point here, must not be able to use the workbench.
static bool is_own(const ConsolePage *page, evhttp_request *request)
{
    evkeyvalq *headers = evhttp_request_get_input_headers(request);
    const char *host = evhttp_find_header(headers, "Host");
    const char *origin = evhttp_find_header(headers, "Origin");
    for (const char *name : {"127.0.0.1", "localhost"}) {
        const std::string here = name + (":" + std::to_string(page->port));
        if (host && host == here)
            return !origin || origin == "http://" + here;
    }
    return false;
}

static std::string query_of(evhttp_request *request, const char *key)
{
    evkeyvalq pairs;
    const char *query = evhttp_uri_get_query(evhttp_request_get_evhttp_uri(request));
    if (!query || evhttp_parse_query_str(query, &pairs) != 0)
        return "";
    const char *value = evhttp_find_header(&pairs, key);
    const std::string text = value ? value : "";
    evhttp_clear_headers(&pairs);
    return text;
}

// A line of NM's command language, for one device. Returns what is wrong, "" when done.
static std::string run(ConsolePage *page, const std::string &serial, const std::string &body)
{
    NmTarget target = {page->nm, page->tunnels, serial};
    std::istringstream words(body);
    std::string first, second;
    words >> first >> second;
    if (second == "wait") // would hold up everything else
        return "the workbench does not wait";
    if (first == "send" && !json_parse(body.substr(body.find("send") + 4)))
        return "this is no JSON";
    return console_run_line(nm_commands_device(&target), body);
}

static std::string terminal_open(ConsolePage *page, const std::string &serial, const std::string &)
{
    for (const NmTunnelView &view : nm_tunnels_view(page->tunnels)) {
        if (view.serial == serial && view.type == "remote-telnet" && view.stands) {
            console_terminals_open(page->terminals, serial, view.port);
            return "";
        }
    }
    return "the tunnel does not stand";
}

static std::string type_keys(ConsolePage *page, const std::string &serial, const std::string &body)
{
    return console_terminals_type(page->terminals, serial, body) ? "" : "no session";
}

static const struct {
    const char *path;
    std::string (*post)(ConsolePage *page, const std::string &serial, const std::string &body);
} k_posts[] = {{"/run", run}, {"/terminal", terminal_open}, {"/keys", type_keys}};

static void on_post(ConsolePage *page, evhttp_request *request, const std::string &path)
{
    evbuffer *input = evhttp_request_get_input_buffer(request);
    std::string body(evbuffer_get_length(input), '\0');
    evbuffer_remove(input, &body[0], body.size());
    for (const auto &row : k_posts) {
        if (path == row.path) {
            const std::string wrong = row.post(page, query_of(request, "device"), body);
            answer(request, wrong.empty() ? 200 : 400, "text/plain; charset=utf-8", wrong);
            return;
        }
    }
    answer(request, 404, "text/plain", "nothing here");
}

static bool file_read(const PageFile &file, std::string *text)
{
    if (file.file == k_xterm_modules) {
        *text = console_bundle(k_xterm_modules, "public/Terminal");
        return !text->empty();
    }
    std::ifstream stream(file.file, std::ios::binary);
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    *text = bytes.str();
    return !text->empty();
}

static void on_get(ConsolePage *page, evhttp_request *request, const std::string &path)
{
    std::string text;
    if (path == "/events") {
        console_events_join(page->events, request);
        return;
    }
    for (const PageFile &file : k_files) {
        if (path == file.path && file_read(file, &text)) {
            answer(request, 200, file.type, text);
            return;
        }
    }
    answer(request, 404, "text/plain", "nothing here");
}

static void on_request(evhttp_request *request, void *arg)
{
    ConsolePage *page = (ConsolePage *)arg;
    const char *found = evhttp_uri_get_path(evhttp_request_get_evhttp_uri(request));
    const std::string path = found ? found : "";
    if (!is_own(page, request))
        answer(request, 403, "text/plain", "the workbench serves its own page on this machine only");
    else if (evhttp_request_get_command(request) == EVHTTP_REQ_POST)
        on_post(page, request, path);
    else
        on_get(page, request, path);
}

static std::string tunnels_text(NmTunnels *tunnels)
{
    cJSON *list = cJSON_CreateArray();
    for (const NmTunnelView &view : nm_tunnels_view(tunnels)) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "serial", view.serial.c_str());
        cJSON_AddStringToObject(item, "type", view.type.c_str());
        cJSON_AddBoolToObject(item, "stands", view.stands);
        cJSON_AddNumberToObject(item, "port", view.port);
        cJSON_AddStringToObject(item, "problem", view.problem.c_str());
        cJSON_AddItemToArray(list, item);
    }
    return json_print_and_delete(list);
}

static void state_poll(ConsolePage *page)
{
    if (!page->http)
        return;
    console_events_state(page->events, "tunnels", tunnels_text(page->tunnels));
    console_events_state(page->events, "misbehaviour", "\"" + nm_commands_misbehaviour(page->nm) + "\"");
    sim_loop_after(page->loop, STATE_POLL_MS, [page] { state_poll(page); });
}

static bool files_are_there()
{
    std::string text;
    for (const PageFile &file : k_files) {
        if (file_read(file, &text))
            continue;
        const std::string hint = *file.package ? std::string(": install ") + file.package : "";
        console_print(std::string("no workbench, ") + file.file + " is missing" + hint);
        return false;
    }
    return true;
}

static bool page_open(ConsolePage *page)
{
    const int fd = sim_listen_tcp("127.0.0.1", &page->port);
    if (fd < 0)
        return false;
    page->http = evhttp_new(sim_loop_base(page->loop));
    evhttp_set_allowed_methods(page->http, EVHTTP_REQ_GET | EVHTTP_REQ_POST);
    evhttp_set_max_body_size(page->http, POST_MAX);
    evhttp_set_max_headers_size(page->http, 16384);
    evhttp_set_gencb(page->http, on_request, page);
    page->terminals = console_terminals_new(page->loop, page->events);
    evhttp_accept_socket(page->http, fd); // owns it from now on
    state_poll(page);
    return true;
}

bool console_page_serve(ConsolePage *page, int port, NmSim *nm, NmTunnels *tunnels)
{
    if (!files_are_there())
        return false;
    bool open = false;
    sim_loop_call(page->loop, [&] {
        page->port = port;
        page->nm = nm;
        page->tunnels = tunnels;
        open = page_open(page);
    });
    console_print(open ? "the workbench is at http://127.0.0.1:" + std::to_string(page->port) + "/"
                       : "no workbench, port " + std::to_string(port) + " is taken");
    return open;
}

void console_page_stop(ConsolePage *page)
{
    if (!page)
        return;
    sim_loop_call(page->loop, [page] {
        console_terminals_free(page->terminals);
        console_events_end(page->events);
        evhttp_free(page->http);
        page->http = nullptr;
    });
}

void console_page_free(ConsolePage *page)
{
    if (!page)
        return;
    sim_loop_stop(page->loop);
    console_events_free(page->events);
    delete page;
}
