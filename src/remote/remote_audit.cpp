#include "remote/remote_audit.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"

struct AuditLine {
    char *text;
    size_t len; // below AUDIT_LINE_SIZE
};

static void text_put(AuditLine *line, const char *text)
{
    size_t len = strlen(text);
    size_t room = AUDIT_LINE_SIZE - 1 - line->len;
    if (len > room)
        len = room;
    memcpy(line->text + line->len, text, len);
    line->len += len;
    line->text[line->len] = '\0';
}

// "name":"value", with a comma before it unless it is the first.
static void string_put(AuditLine *line, const char *name, const char *value)
{
    char piece[8] = {};
    text_put(line, line->len == 0 ? "{\"" : ",\"");
    text_put(line, name);
    text_put(line, "\":\"");
    for (const unsigned char *c = (const unsigned char *)value; *c; c++) {
        if (*c < ' ' || *c > '~')
            (void)text_fmt(piece, "\\u%04x", *c);
        else
            (void)text_fmt(piece, *c == '"' || *c == '\\' ? "\\%c" : "%c", *c);
        text_put(line, piece);
    }
    text_put(line, "\"");
}

static void number_put(AuditLine *line, const char *name, uint64_t value)
{
    char piece[64];
    (void)text_fmt(piece, ",\"%s\":%" PRIu64, name, value);
    text_put(line, piece);
}

// ISO 8601, UTC.
static void time_put(AuditLine *line, const char *name, int64_t seconds)
{
    char text[64] = "";
    time_t when = (time_t)seconds;
    struct tm parts;
    if (gmtime_r(&when, &parts))
        (void)strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    string_put(line, name, text);
}

static void tunnel_put(AuditLine *line, const AuditTunnel *tunnel)
{
    char end[64];
    (void)text_fmt(end, "%s:%s", tunnel->address, tunnel->port);
    string_put(line, "kind", tunnel->kind);
    string_put(line, "host", tunnel->host);
    string_put(line, "tunnel_end", end);
    string_put(line, "session", tunnel->session_id);
}

size_t remote_audit_session_format(const AuditSession *session, char (&line)[AUDIT_LINE_SIZE])
{
    AuditLine out = {line, 0};
    string_put(&out, "event", "session");
    time_put(&out, "start", session->start_s);
    time_put(&out, "end", session->end_s);
    tunnel_put(&out, &session->tunnel);
    number_put(&out, "from_nm", session->from_nm);
    number_put(&out, "to_nm", session->to_nm);
    if (session->has_ids)
        number_put(&out, "ids", session->ids);
    string_put(&out, "ended_by", session->ended_by);
    text_put(&out, "}\n");
    return out.len;
}

size_t remote_audit_refusal_format(const AuditRefusal *refusal, char (&line)[AUDIT_LINE_SIZE])
{
    AuditLine out = {line, 0};
    string_put(&out, "event", "refusal");
    time_put(&out, "time", refusal->time_s);
    tunnel_put(&out, &refusal->tunnel);
    string_put(&out, "reason", refusal->reason);
    text_put(&out, "}\n");
    return out.len;
}

static std::atomic<uint32_t> s_lost{0};   // lines since the file could not be written
static std::atomic<uint8_t> s_is_torn{0}; // the file ends in a part of a line

// The line as one write. 0, or -1 with errno.
static int line_write(int fd, const char *line, size_t len)
{
    bool was_torn = s_is_torn.exchange(0);
    struct iovec parts[2] = {{(void *)"\n", was_torn ? (size_t)1 : 0}, {(void *)line, len}};
    ssize_t total = (ssize_t)(parts[0].iov_len + len);
    ssize_t written = writev(fd, parts, 2);
    if (written == total)
        return 0;
    if (written > 0 || was_torn)
        s_is_torn = 1;
    if (written >= 0)
        errno = ENOSPC;
    return -1;
}

// Without blocking: a FIFO that nobody reads must not hold up the end of a session.
static int line_append(const char *path, const char *line, size_t len)
{
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
    if (fd < 0)
        return -1;
    int result = line_write(fd, line, len);
    int error = errno;
    close(fd);
    errno = error;
    return result;
}

void remote_audit_append(const char *path, const char *line, size_t len)
{
    if (path[0] == '\0')
        return;
    if (line_append(path, line, len) != 0) {
        if (s_lost++ == 0)
            log_warn("Audit file: %s cannot be written: %s!", path, error_text(errno).text);
        return;
    }
    uint32_t lost = s_lost.exchange(0);
    if (lost > 0)
        log_info("Audit file: %s can be written again, lines lost: %u", path, lost);
}
