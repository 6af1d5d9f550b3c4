#include "runtime/log_mask.h"

#include <ctype.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

static const char k_mask[] = "***";
constexpr size_t MASK_LEN = sizeof(k_mask) - 1;

struct SecretName {
    const char *name;
    size_t len;
    bool is_quoted_only; // "key: " is what the log says of other things
};
static const SecretName k_names[] = {{"secretKey", 9, false}, {"token", 5, false}, {"key", 3, true}};

struct Span {
    const char *begin, *end;
};

static bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static const char *blanks_skip(const char *at)
{
    while (is_blank(*at))
        at++;
    return at;
}

// The text before colon is one of the names. *is_quoted: in quotes, as JSON has it.
static bool is_secret_before(const char *text, const char *colon, bool *is_quoted)
{
    const char *end = colon;
    while (end > text && is_blank(end[-1]))
        end--;
    *is_quoted = end > text && end[-1] == '"';
    if (*is_quoted)
        end--;
    while (*is_quoted && end > text && end[-1] == '\\') // JSON within JSON
        end--;
    for (const SecretName &secret : k_names) {
        const char *begin = (size_t)(end - text) >= secret.len ? end - secret.len : nullptr;
        if (!begin || strncasecmp(begin, secret.name, secret.len) != 0 || (secret.is_quoted_only && !*is_quoted))
            continue;
        char before = begin > text ? begin[-1] : ' ';
        if (*is_quoted ? before == '"' : !isalnum((unsigned char)before) && before != '_')
            return true;
    }
    return false;
}

// What the log puts behind a message.
static bool is_line_end(const char *at)
{
    return *at == '\0' || *at == '\033' || (*at == '\n' && at[1] == '\0');
}

// The backslashes before a quote at at, not before begin.
static size_t backslashes_before(const char *begin, const char *at)
{
    size_t count = 0;
    while (at - count > begin && at[-1 - (ptrdiff_t)count] == '\\')
        count++;
    return count;
}

// A value in quotes that have so many backslashes before them: none, or 1, 3, 7 in JSON within JSON. It ends at such a
// quote that is not part of it, and behind which the JSON goes on: a value may have been written without escapes.
static Span quoted_span(const char *quote, size_t backslashes)
{
    Span span = {quote + 1, quote + 1};
    for (; !is_line_end(span.end); span.end++) {
        if (*span.end != '"' || backslashes_before(span.begin, span.end) % (2 * backslashes + 2) != backslashes)
            continue;
        char next = *blanks_skip(span.end + 1);
        if (strchr(",}]\\\033", next)) // strchr finds the NUL too
            return {span.begin, span.end - backslashes};
    }
    return span;
}

// The value behind colon; empty when there is none to hide.
static Span value_span(const char *colon, bool is_quoted)
{
    if (!is_quoted) {
        const char *begin = colon + 1 + strspn(colon + 1, " ");
        return {begin, begin + strcspn(begin, ",\r\n\033")};
    }
    const char *begin = blanks_skip(colon + 1);
    size_t backslashes = strspn(begin, "\\");
    if (begin[backslashes] == '"')
        return quoted_span(begin + backslashes, backslashes);
    if (*begin == '{' || *begin == '[') // names of its own follow
        return {begin, begin};
    return {begin, begin + strcspn(begin, ",}] \t\r\n\\\033")};
}

// The next value to hide from there on. False when there is none.
static bool secret_find(const char *text, const char *from, Span *span)
{
    for (const char *colon = strchr(from, ':'); colon; colon = strchr(colon + 1, ':')) {
        bool is_quoted;
        if (!is_secret_before(text, colon, &is_quoted))
            continue;
        *span = value_span(colon, is_quoted);
        if (span->end > span->begin)
            return true;
    }
    return false;
}

static size_t masked_size(const char *text)
{
    size_t size = strlen(text) + 1;
    Span span;
    for (const char *at = text; secret_find(text, at, &span); at = span.end)
        size += MASK_LEN;
    return size;
}

char *log_mask(const char *text)
{
    char *masked = (char *)malloc(masked_size(text));
    if (!masked)
        return nullptr;
    char *to = masked;
    const char *at = text;
    for (Span span; secret_find(text, at, &span); at = span.end) {
        size_t len = (size_t)(span.begin - at);
        memcpy(to, at, len);
        memcpy(to + len, k_mask, MASK_LEN);
        to += len + MASK_LEN;
    }
    memcpy(to, at, strlen(at) + 1);
    return masked;
}
