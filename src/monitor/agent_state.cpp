#include "monitor/agent_state.h"

#include <cjson/cJSON.h>
#include <time.h>
#include <unistd.h>

static const char *const k_session_texts[] = {"waiting", "pass", "online"};

static void time_add(cJSON *object, const char *name, time_t when)
{
    char text[32];
    struct tm utc = {};
    gmtime_r(&when, &utc);
    if (strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc) > 0)
        cJSON_AddStringToObject(object, name, text);
}

static void seconds_add(cJSON *object, const char *name, int64_t ms)
{
    int64_t whole_s = ms / 1000;
    cJSON_AddNumberToObject(object, name, (double)whole_s);
}

// Seconds between a moment (0: it never came) and now.
static void age_add(cJSON *object, const char *name, int64_t then_ms, int64_t now_ms)
{
    if (then_ms == 0)
        cJSON_AddNullToObject(object, name);
    else
        seconds_add(object, name, now_ms - then_ms);
}

static void process_add(cJSON *root, int64_t begin_ms, int64_t now_ms)
{
    int64_t uptime_s = (now_ms - begin_ms) / 1000;
    time_t now = time(nullptr);
    cJSON_AddStringToObject(root, "version", PLUGIN_VERSION);
    cJSON_AddNumberToObject(root, "pid", getpid());
    time_add(root, "started", now - (time_t)uptime_s); // by the clock of today: it may have been set since
    time_add(root, "written", now);
    cJSON_AddNumberToObject(root, "uptime_s", (double)uptime_s);
}

static void session_add(cJSON *root, const AgentState *state)
{
    const AgentFacts *facts = &state->facts;
    cJSON_AddStringToObject(root, "state", k_session_texts[facts->session]);
    cJSON_AddStringToObject(root, "stuck", facts->stuck);
    cJSON *dma = cJSON_AddObjectToObject(root, "dma");
    cJSON_AddStringToObject(dma, "status", facts->dma_status);
    cJSON_AddStringToObject(dma, "cause", facts->dma_cause);
    cJSON_AddNumberToObject(root, "failed_passes", facts->failed_passes);
    if (state->next_pass_ms < 0)
        cJSON_AddNullToObject(root, "next_pass_s");
    else
        seconds_add(root, "next_pass_s", state->next_pass_ms + 999);
}

static void peers_add(cJSON *root, const AgentFacts *facts, int64_t now_ms)
{
    cJSON *nm = cJSON_AddObjectToObject(root, "nm");
    cJSON_AddStringToObject(nm, "method", facts->nm_method);
    cJSON_AddStringToObject(nm, "host", facts->nm_ip);
    cJSON_AddStringToObject(nm, "port", facts->nm_port);
    cJSON_AddBoolToObject(nm, "redirected", facts->is_nm_redirected);
    cJSON *heartbeat = cJSON_AddObjectToObject(root, "heartbeat");
    cJSON_AddStringToObject(heartbeat, "channel", facts->heartbeat.is_over_http ? "http" : "udp");
    age_add(heartbeat, "answer_age_s", facts->heartbeat.answered_ms, now_ms);
    cJSON_AddNumberToObject(heartbeat, "misses", facts->heartbeat.misses);
    cJSON *device = cJSON_AddObjectToObject(root, "device");
    cJSON_AddBoolToObject(device, "connected", facts->is_device_connected);
    cJSON_AddStringToObject(device, "host", facts->device_ip);
    cJSON_AddStringToObject(device, "port", facts->device_port);
}

static void tunnel_add(cJSON *tunnels, const char *name, const TunnelFacts *tunnel, int64_t now_ms)
{
    cJSON *object = cJSON_AddObjectToObject(tunnels, name);
    cJSON_AddBoolToObject(object, "open", tunnel->is_open);
    age_add(object, "open_s", tunnel->is_open ? tunnel->since_ms : 0, now_ms);
    cJSON_AddNumberToObject(object, "bytes_from_nm", (double)tunnel->from_nm);
    cJSON_AddNumberToObject(object, "bytes_to_nm", (double)tunnel->to_nm);
    cJSON_AddNumberToObject(object, "ids", tunnel->ids);
}

static void posts_add(cJSON *root, const AgentFacts *facts, int64_t now_ms)
{
    static const char *const k_reports[] = {"heartbeat", "run_status", "services", "call_history"};
    static_assert(sizeof(k_reports) / sizeof(k_reports[0]) == REPORT_TYPE_COUNT, "one name per report type");
    const PostFacts *posts = &facts->posts;
    cJSON *object = cJSON_AddObjectToObject(root, "posts");
    cJSON_AddNumberToObject(object, "sent", posts->sent);
    cJSON_AddNumberToObject(object, "failed", posts->failed);
    age_add(object, "failure_age_s", posts->failed_ms, now_ms);
    cJSON_AddStringToObject(object, "failure", posts->failure);
    cJSON *reports = cJSON_AddObjectToObject(root, "reports");
    cJSON_AddBoolToObject(reports, "services_enabled", facts->is_service_reporting);
    for (uint32_t type = 0; type < REPORT_TYPE_COUNT; type++)
        cJSON_AddNumberToObject(reports, k_reports[type], posts->reports[type]);
}

static void threads_add(cJSON *root, const AgentState *state)
{
    cJSON *threads = cJSON_AddArrayToObject(root, "threads");
    for (int i = 0; i < state->thread_count; i++) {
        cJSON *thread = cJSON_CreateObject();
        cJSON_AddStringToObject(thread, "name", state->threads[i].name);
        cJSON_AddBoolToObject(thread, "working", state->threads[i].is_working);
        seconds_add(thread, "working_s", state->threads[i].working_ms);
        cJSON_AddItemToArray(threads, thread);
    }
}

char *agent_state_json(const AgentState *state, int64_t begin_ms)
{
    cJSON *root = cJSON_CreateObject();
    process_add(root, begin_ms, state->now_ms);
    session_add(root, state);
    peers_add(root, &state->facts, state->now_ms);
    cJSON *tunnels = cJSON_AddObjectToObject(root, "tunnels");
    tunnel_add(tunnels, "web", &state->facts.web, state->now_ms);
    tunnel_add(tunnels, "telnet", &state->facts.telnet, state->now_ms);
    posts_add(root, &state->facts, state->now_ms);
    threads_add(root, state);
    char *text = cJSON_Print(root);
    cJSON_Delete(root);
    return text;
}

void agent_state_line(const AgentFacts *facts, char (&line)[AGENT_LINE_SIZE])
{
    if (facts->stuck[0])
        (void)text_fmt(line, "stuck: thread %s", facts->stuck);
    else if (facts->session == SESSION_ONLINE)
        (void)text_fmt(line, "online with %s://%s:%s", facts->nm_method, facts->nm_ip, facts->nm_port);
    else if (facts->session == SESSION_PASS)
        (void)text_set(line, "joining");
    else if (facts->failed_passes == 0)
        (void)text_set(line, "waiting for the next bring-up pass");
    else
        (void)text_fmt(line, "not online: %s%s%s, failed passes: %u", facts->dma_status,
                       facts->dma_cause[0] ? ": " : "", facts->dma_cause, facts->failed_passes);
}
