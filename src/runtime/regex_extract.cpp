#include "runtime/regex_extract.h"

#include <string.h>

#include "runtime/log.h"

constexpr size_t REGERROR_TEXT_SIZE = 1024;

int regex_compile(regex_t *compiled, const char *regex)
{
    int result = regcomp(compiled, regex, REG_EXTENDED);
    if (result != 0) {
        char reason[REGERROR_TEXT_SIZE];
        regerror(result, compiled, reason, sizeof(reason));
        log_warn("Reg: '%s' compiling failed: %s.", regex, reason);
    }
    return result;
}

static bool has_arguments(const char *msg, const char *regex, const char *value)
{
    if (!msg)
        log_error("msg is NULL!");
    if (!regex)
        log_error("regex is NULL!");
    if (!value)
        log_error("value is NULL!");
    return msg && regex && value;
}

int regex_extract(const char *msg, const char *regex, char *value, size_t value_cap)
{
    if (!has_arguments(msg, regex, value))
        return -1;
    memset(value, 0, value_cap);
    regex_t compiled;
    int result = regex_compile(&compiled, regex);
    if (result != 0)
        return result;
    regmatch_t pmatch[2];
    result = regexec(&compiled, msg, 2, pmatch, 0);
    regfree(&compiled);
    if (result == REG_NOMATCH) {
        log_info("No match for REGEX: \"%s\", msg: %s", regex, msg);
        return result;
    }
    if (result != 0 || pmatch[1].rm_so < 0) {
        log_warn("Unknown status: %d", result);
        log_info("No match for REGEX: %s, msg: %s", regex, msg);
        return result;
    }
    const char *matched = msg + pmatch[1].rm_so;
    int matched_len = (int)(pmatch[1].rm_eo - pmatch[1].rm_so);
    log_info("pmatch[1].rm_eo: %d, pmatch[1].rm_so: %d, matched_len: %d, matched value: %.*s", (int)pmatch[1].rm_eo,
             (int)pmatch[1].rm_so, matched_len, matched_len, matched);
    if (value_cap <= (size_t)matched_len) {
        log_warn("value_len: %d not enough, needed matched_len: %d, matched_str: %.*s!", (int)value_cap,
                 matched_len + 1, matched_len, matched);
        return -1;
    }
    memcpy(value, matched, (size_t)matched_len);
    return 0;
}
