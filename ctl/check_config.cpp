#include "ctl/check.h"

#include <errno.h>
#include <fcntl.h>
#include <iniparser.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ctl/findings.h"
#include "runtime/plugin_config.h"
#include "runtime/plugin_config_internal.h"
#include "runtime/text.h"

static const char k_path[] = "./config.ini";

// The agent prints one line of its settings itself; it does not belong here.
static void config_read_quietly(void)
{
    fflush(stdout);
    int out = dup(STDOUT_FILENO);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(null, STDOUT_FILENO);
    (void)read_plugin_config();
    fflush(stdout);
    (void)dup2(out, STDOUT_FILENO);
    close(out);
    close(null);
}

static bool key_at(size_t index, ConfigKeyInfo *info)
{
    size_t fixed = 0;
    while (fixed <= index && plugin_config_key_at(fixed, info))
        fixed++;
    return fixed > index || options_key_at(index - fixed, info);
}

static bool is_number(const char *text, int base)
{
    char *end;
    errno = 0;
    (void)strtoll(text, &end, base);
    return end != text && *end == '\0' && errno == 0;
}

static bool is_port_key(const char *key)
{
    const char *tail = strrchr(key, '_');
    return tail && strcmp(tail, "_port") == 0;
}

static void value_check(const ConfigKeyInfo *info, const char *value)
{
    bool is_port = is_port_key(info->key);
    if (info->is_number && !is_number(value, 0))
        finding_add(SEVERITY_WARNING, "%s = %s is not a number, the agent reads %lld: write digits only", info->key,
                    value, strtoll(value, nullptr, 0));
    else if (is_port &&
             (!is_number(value, 10) || strtoll(value, nullptr, 10) < 0 || strtoll(value, nullptr, 10) > 65535))
        finding_add(SEVERITY_WARNING, "%s = %s is not a port: write a number from 0 to 65535", info->key, value);
    else if (info->text_cap > 0 && strlen(value) > info->text_cap)
        finding_add(SEVERITY_WARNING, "%s is longer than %u characters, the rest is cut off: write a shorter value",
                    info->key, (unsigned)info->text_cap);
}

// Fewest insertions, removals and replacements that make one text of the other; short texts only.
static size_t distance(const char *a, const char *b)
{
    size_t row[80], b_len = strlen(b);
    if (b_len >= sizeof(row) / sizeof(row[0]))
        return SIZE_MAX;
    for (size_t j = 0; j <= b_len; j++)
        row[j] = j;
    for (size_t i = 1; a[i - 1]; i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b_len; j++) {
            size_t replaced = diagonal + (a[i - 1] != b[j - 1]);
            diagonal = row[j];
            size_t moved = (row[j] < row[j - 1] ? row[j] : row[j - 1]) + 1;
            row[j] = replaced < moved ? replaced : moved;
        }
    }
    return row[b_len];
}

static void unknown_key_tell(const char *name)
{
    ConfigKeyInfo info, nearest = {};
    size_t least = SIZE_MAX;
    for (size_t i = 0; key_at(i, &info); i++) {
        size_t now = distance(name, info.key);
        if (now < least) {
            least = now;
            nearest = info;
        }
    }
    if (least <= strlen(name) / 4)
        finding_add(SEVERITY_WARNING, "%s is not a key of the agent and without effect: did you mean %s?", name,
                    nearest.key);
    else
        finding_add(SEVERITY_WARNING, "%s is not a key of the agent and without effect", name);
}

static void keys_check(const dictionary *dict)
{
    for (int i = 0; i < iniparser_getnsec(dict); i++) {
        const char *names[200];
        const char *section = iniparser_getsecname(dict, i);
        int count = iniparser_getsecnkeys(dict, section);
        if (count > 200)
            finding_add(SEVERITY_WARNING, "section %s has %d keys; they were not looked at", section, count);
        if (count < 1 || count > 200 || !iniparser_getseckeys(dict, section, names))
            continue;
        for (int k = 0; k < count; k++) {
            if (!finding_is_key_set(names[k]))
                unknown_key_tell(names[k]);
        }
    }
}

static void key_print(const ConfigKeyInfo *info, const char *value)
{
    char number[16] = "";
    const char *fallback = finding_default_of(info->key);
    if (info->is_number && !fallback[0]) {
        (void)text_fmt(number, "%d", info->fallback);
        fallback = number;
    }
    printf("%-42s %-34s %s\n", info->key,
           value         ? value
           : fallback[0] ? fallback
                         : "-",
           value ? "config.ini" : "default");
}

// Some keys are read for several links.
static bool is_repeated(size_t index, const char *key)
{
    ConfigKeyInfo earlier;
    for (size_t i = 0; i < index; i++) {
        if (key_at(i, &earlier) && strcmp(earlier.key, key) == 0)
            return true;
    }
    return false;
}

static void keys_print(const dictionary *dict)
{
    ConfigKeyInfo info;
    for (size_t i = 0; key_at(i, &info); i++) {
        const char *value = dict ? iniparser_getstring(dict, info.key, nullptr) : nullptr;
        if (is_repeated(i, info.key))
            continue;
        if (value)
            value_check(&info, value);
        key_print(&info, value);
    }
}

void check_config(void)
{
    config_read_quietly();
    dictionary *dict = access(k_path, R_OK) == 0 ? iniparser_load(k_path) : nullptr;
    keys_print(dict);
    if (dict)
        keys_check(dict);
    iniparser_freedict(dict);
}
