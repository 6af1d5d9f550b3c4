#include "ctl/ctl.h"

#include <cjson/cJSON.h>
#include <errno.h>
#include <iniparser.h>
#include <libgen.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "runtime/file_util.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/text.h"

constexpr int STATUS_ONLINE = 0;
constexpr int STATUS_NOT_ONLINE = 1;
constexpr int STATUS_NO_AGENT = 2; // or a stuck one
constexpr int SILENT_S = 30;       // the agent writes the file every 10 s
constexpr size_t STATE_FILE_MAX = 65536;

// The path of the state file that config.ini names, in the directory of config.ini unless it is absolute. 0, or -1
// after a message.
static int state_path_find(const char *config_path, char (&path)[2 * OPTION_PATH_SIZE])
{
    g_log_level = 0; // the lines of the agent's own reading are of no interest here
    dictionary *dict = iniparser_load(config_path);
    if (!dict) {
        fprintf(stderr, "%s cannot be read; say where it is with --config\n", config_path);
        return -1;
    }
    options_read(dict);
    iniparser_freedict(dict);
    Options options;
    options_get(&options);
    const char *state_file = options.monitor.state_file;
    if (state_file[0] == '\0') {
        fprintf(stderr, "%s names no state file; add \"state_file = PATH\" to its section [monitor]\n", config_path);
        return -1;
    }
    char directory[OPTION_PATH_SIZE];
    (void)text_set(directory, config_path);
    (void)text_fmt(path, "%s%s%s", state_file[0] == '/' ? "" : dirname(directory), state_file[0] == '/' ? "" : "/",
                   state_file);
    return 0;
}

static const char *text_of(const cJSON *object, const char *name)
{
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
    return text ? text : "?";
}

static double number_of(const cJSON *object, const char *name)
{
    const cJSON *item = cJSON_GetObjectItem(object, name);
    return cJSON_IsNumber(item) ? item->valuedouble : 0;
}

static bool is_true(const cJSON *object, const char *name)
{
    return cJSON_IsTrue(cJSON_GetObjectItem(object, name));
}

static bool has_number(const cJSON *object, const char *name)
{
    return cJSON_IsNumber(cJSON_GetObjectItem(object, name));
}

struct DurationText {
    char text[32];
};

static DurationText duration(double seconds)
{
    DurationText result;
    unsigned s = (unsigned)seconds;
    if (s < 120)
        (void)text_fmt(result.text, "%u s", s);
    else if (s < 7200)
        (void)text_fmt(result.text, "%u min", s / 60);
    else if (s < 172800)
        (void)text_fmt(result.text, "%u h %u min", s / 3600, s / 60 % 60);
    else
        (void)text_fmt(result.text, "%u days", s / 86400);
    return result;
}

static void session_print(const cJSON *root)
{
    const cJSON *nm = cJSON_GetObjectItem(root, "nm");
    const cJSON *dma = cJSON_GetObjectItem(root, "dma");
    printf("%-15s %s (told to the device: %s%s%s)\n", "state", text_of(root, "state"), text_of(dma, "status"),
           text_of(dma, "cause")[0] ? ", " : "", text_of(dma, "cause"));
    printf("%-15s %s, process %.0f, up %s\n", "agent", text_of(root, "version"), number_of(root, "pid"),
           duration(number_of(root, "uptime_s")).text);
    printf("%-15s %s://%s:%s%s\n", "NM", text_of(nm, "method"), text_of(nm, "host"), text_of(nm, "port"),
           is_true(nm, "redirected") ? ", redirected" : "");
    printf("%-15s %.0f failed in a row", "bring-up", number_of(root, "failed_passes"));
    if (has_number(root, "next_pass_s"))
        printf(", next pass in %s", duration(number_of(root, "next_pass_s")).text);
    printf("\n");
}

static void links_print(const cJSON *root)
{
    const cJSON *heartbeat = cJSON_GetObjectItem(root, "heartbeat");
    const cJSON *device = cJSON_GetObjectItem(root, "device");
    printf("%-15s over %s, %.0f missed in a row, ", "heartbeat", text_of(heartbeat, "channel"),
           number_of(heartbeat, "misses"));
    if (has_number(heartbeat, "answer_age_s"))
        printf("last answer %s ago\n", duration(number_of(heartbeat, "answer_age_s")).text);
    else
        printf("no answer yet\n");
    printf("%-15s %s, %s:%s\n", "device", is_true(device, "connected") ? "connected" : "not connected",
           text_of(device, "host"), text_of(device, "port"));
}

static void tunnel_print(const cJSON *tunnels, const char *name, const char *title, bool has_ids)
{
    const cJSON *tunnel = cJSON_GetObjectItem(tunnels, name);
    printf("%-15s ", title);
    if (!is_true(tunnel, "open")) {
        printf("closed\n");
        return;
    }
    printf("open for %s, %.0f bytes from NM, %.0f to NM", duration(number_of(tunnel, "open_s")).text,
           number_of(tunnel, "bytes_from_nm"), number_of(tunnel, "bytes_to_nm"));
    if (has_ids)
        printf(", %.0f ids", number_of(tunnel, "ids"));
    printf("\n");
}

static void posts_print(const cJSON *root)
{
    const cJSON *posts = cJSON_GetObjectItem(root, "posts");
    const cJSON *reports = cJSON_GetObjectItem(root, "reports");
    printf("%-15s %.0f sent, %.0f failed", "posts", number_of(posts, "sent"), number_of(posts, "failed"));
    if (has_number(posts, "failure_age_s"))
        printf(", the last %s ago: %s", duration(number_of(posts, "failure_age_s")).text, text_of(posts, "failure"));
    printf("\n%-15s %.0f run status, %.0f call history, %.0f service records (%s)\n", "reports",
           number_of(reports, "run_status"), number_of(reports, "call_history"), number_of(reports, "services"),
           is_true(reports, "services_enabled") ? "enabled" : "not enabled");
}

static void state_print(const cJSON *root)
{
    session_print(root);
    links_print(root);
    const cJSON *tunnels = cJSON_GetObjectItem(root, "tunnels");
    tunnel_print(tunnels, "web", "remote web", true);
    tunnel_print(tunnels, "telnet", "remote telnet", false);
    posts_print(root);
}

// The agent that wrote the file runs. A number that another program got since does not count.
static bool is_agent_running(int pid)
{
    char path[64];
    char name[17] = {};
    if (pid < 1 || (kill(pid, 0) != 0 && errno == ESRCH))
        return false;
    (void)text_fmt(path, "/proc/%d/comm", pid);
    FILE *comm = fopen(path, "re");
    if (!comm)
        return true;
    bool is_agent = fgets(name, sizeof(name), comm) && strncmp(name, "proxy_plugin", strlen("proxy_plugin")) == 0;
    fclose(comm);
    return is_agent;
}

struct Verdict {
    int status;
    char problem[160]; // of the agent; "": none
};

static Verdict judge(const cJSON *root, time_t written)
{
    Verdict verdict = {STATUS_NO_AGENT, ""};
    int pid = (int)number_of(root, "pid");
    double silent_s = difftime(time(nullptr), written);
    const char *stuck = text_of(root, "stuck");
    if (!is_agent_running(pid))
        (void)text_fmt(verdict.problem, "no agent: process %d has ended without a word", pid);
    else if (silent_s > SILENT_S)
        (void)text_fmt(verdict.problem, "stuck: the agent last wrote its state %s ago", duration(silent_s).text);
    else if (stuck[0])
        (void)text_fmt(verdict.problem, "stuck: thread %s does not come to an end", stuck);
    else
        verdict.status = strcmp(text_of(root, "state"), "online") == 0 ? STATUS_ONLINE : STATUS_NOT_ONLINE;
    return verdict;
}

// Reads the state file. Null after a message; the caller deletes.
static cJSON *state_read(const char *path, char *text, size_t cap, time_t *written)
{
    struct stat st;
    if (stat(path, &st) != 0 || read_file(path, text, cap) < 1) {
        fprintf(stderr, "no agent: %s: %s\n", path, strerror(errno));
        return nullptr;
    }
    *written = st.st_mtime;
    cJSON *root = cJSON_Parse(text);
    if (!root)
        fprintf(stderr, "%s is not the state of an agent\n", path);
    return root;
}

int ctl_status(const char *config_path, bool as_json)
{
    char path[2 * OPTION_PATH_SIZE];
    static char s_text[STATE_FILE_MAX + 1];
    time_t written;
    if (state_path_find(config_path, path) != 0)
        return STATUS_NO_AGENT;
    cJSON *root = state_read(path, s_text, STATE_FILE_MAX, &written);
    if (!root)
        return STATUS_NO_AGENT;
    Verdict verdict = judge(root, written);
    if (as_json)
        fputs(s_text, stdout);
    else
        state_print(root);
    if (verdict.problem[0])
        fprintf(stderr, "%s\n", verdict.problem);
    cJSON_Delete(root);
    return verdict.status;
}
