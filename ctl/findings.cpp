#include "ctl/findings.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

#include "runtime/log_internal.h"
#include "runtime/text.h"

constexpr int FINDINGS_MAX = 200;
constexpr int KEYS_MAX = 200;

struct Finding {
    Severity severity;
    char *text;
};
static Finding s_findings[FINDINGS_MAX];
static int s_count;

// What the agent said of a key of config.ini.
struct KeyWord {
    char *key;
    char *fallback; // null: the file has the key
};
static KeyWord s_keys[KEYS_MAX];
static int s_key_count;

// What a line of the agent's log means here. The first row whose words stand in the line counts.
static const struct {
    const char *words;
    Severity severity;
    const char *advice; // null: said elsewhere
} k_advice[] = {
    {"config.ini is not found", SEVERITY_WARNING,
     "the agent would take its defaults and log to syslog; start from the sample config.ini"},
    {"FAILED with checking file", SEVERITY_NOTE, nullptr},
    {"config.ini is broken", SEVERITY_FATAL, "the agent reads none of it and ends; mend the line named above"},
    {"use default value", SEVERITY_WARNING, "write a number from 1 to 1048576"},
    {"use default:", SEVERITY_WARNING, "write a number within the bounds"},
    {"bytes and ignored", SEVERITY_WARNING, "write a shorter value"},
    {"Not found", SEVERITY_NOTE, nullptr}, // told with the key
    {"Invalid port", SEVERITY_FATAL, "\"port\" of the init cfg is NM's plain port, 0 to 65535"},
    {"Version mismatch", SEVERITY_FATAL, "\"ver\" of the init cfg has to be the version that this agent speaks"},
    {"status is DOWN", SEVERITY_NOTE, nullptr},
    {"Cannot detect IP", SEVERITY_FATAL, "set \"interface\" of the init cfg to one that is up and has an IPv4 address"},
    {"is different with detected", SEVERITY_WARNING, "the interface's own address is used; mend \"localIp\""},
    {"gethostbyname() failed", SEVERITY_FATAL, "\"host\" of the init cfg does not resolve; check the name and the DNS"},
    {"is bigger than the max", SEVERITY_WARNING, "the bound is used instead"},
    {"is smaller than the min", SEVERITY_WARNING, "the bound is used instead"},
    {"is not ending with '/'", SEVERITY_NOTE, nullptr},
    {"cannot be used as it stands", SEVERITY_FATAL, "mend the keys of that section"},
    {"asks for https", SEVERITY_FATAL, "set \"method\" of the init cfg to https"},
};

static void add(Severity severity, const char *text)
{
    if (severity == SEVERITY_NOTE || s_count == FINDINGS_MAX)
        return;
    for (int i = 0; i < s_count; i++) {
        if (strcmp(s_findings[i].text, text) == 0)
            return;
    }
    s_findings[s_count++] = {severity, strdup(text)};
}

void finding_add(Severity severity, const char *fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    (void)text_vformat(text, sizeof(text), fmt, args);
    va_end(args);
    add(severity, text);
}

static void problem_take(Severity severity, const char *line)
{
    for (const auto &row : k_advice) {
        if (!strstr(line, row.words))
            continue;
        if (row.advice)
            finding_add(row.severity, "%s: %s", line, row.advice);
        return;
    }
    add(severity, line);
}

// "Key: section:key is set to: value" or "Key: section:key not found, use default: value"
static void key_take(const char *line)
{
    static const char k_head[] = "Key: ", k_set[] = " is set to: ", k_default[] = " not found, use default: ";
    const char *set = strstr(line, k_set), *fallback = strstr(line, k_default);
    const char *end = set ? set : fallback;
    if (strncmp(line, k_head, strlen(k_head)) != 0 || !end || s_key_count == KEYS_MAX)
        return;
    const char *key = line + strlen(k_head);
    s_keys[s_key_count++] = {strndup(key, (size_t)(end - key)), set ? nullptr : strdup(fallback + strlen(k_default))};
}

static void line_take(int priority, const char *line)
{
    if (priority == LOG_ERR)
        problem_take(SEVERITY_FATAL, line);
    else if (priority == LOG_WARNING)
        problem_take(SEVERITY_WARNING, line);
    else
        key_take(line);
}

void findings_listen(void)
{
    log_sink_set(line_take);
}

static void line_drop(int, const char *)
{
}

void findings_listen_no_more(void)
{
    log_sink_set(line_drop);
}

static const KeyWord *key_find(const char *key)
{
    for (int i = 0; i < s_key_count; i++) {
        if (strcasecmp(s_keys[i].key, key) == 0)
            return &s_keys[i];
    }
    return nullptr;
}

bool finding_is_key_set(const char *key)
{
    const KeyWord *word = key_find(key);
    return word && !word->fallback;
}

const char *finding_default_of(const char *key)
{
    const KeyWord *word = key_find(key);
    return word && word->fallback ? word->fallback : "";
}

int findings_print(void)
{
    int worst = SEVERITY_NOTE, warnings = 0;
    for (int i = 0; i < s_count; i++) {
        bool is_fatal = s_findings[i].severity == SEVERITY_FATAL;
        printf("%s%s: %s\n", i == 0 ? "\n" : "", is_fatal ? "ERROR" : "warning", s_findings[i].text);
        worst = is_fatal ? SEVERITY_FATAL : worst < SEVERITY_WARNING ? SEVERITY_WARNING : worst;
        warnings += !is_fatal;
    }
    if (worst == SEVERITY_FATAL)
        printf("\nwould not come online\n");
    else if (worst == SEVERITY_WARNING)
        printf("\n%d warning%s\n", warnings, warnings == 1 ? "" : "s");
    else
        printf("\nfine\n");
    return worst;
}
