// remote_audit.h - the audit of remote access: one line of JSON for each session and each refusal. Tokens and keys are
// no part of it. Any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

// What both kinds of line say. The texts are NM's: at most 511 characters each, in any encoding.
struct AuditTunnel {
    const char *kind;       // "web" or "telnet"
    const char *host;       // of the tunnel end, as NM named it
    const char *address;    // what it resolved to, dotted
    const char *port;       // decimal
    const char *session_id; // NM's
};

struct AuditSession {
    AuditTunnel tunnel;
    int64_t start_s, end_s; // UTC, seconds since 1970
    uint64_t from_nm, to_nm;
    bool has_ids;
    uint32_t ids;
    const char *ended_by;
};

struct AuditRefusal {
    AuditTunnel tunnel;
    int64_t time_s;
    const char *reason;
};

constexpr size_t AUDIT_LINE_SIZE = 7168; // two texts of 511 characters at six bytes each, and the rest

// The line with its newline and a NUL; returns its length without the NUL. Quotes, backslashes, control characters and
// bytes above 126 are escaped, the latter as \u00XX.
size_t remote_audit_session_format(const AuditSession *session, char (&line)[AUDIT_LINE_SIZE]);
size_t remote_audit_refusal_format(const AuditRefusal *refusal, char (&line)[AUDIT_LINE_SIZE]);

// Appends the line to the file, which is made with mode 0600, in one write; an empty path: nothing. A file that cannot
// be written gives one warning until it can be written again, which gives one line with the number of lines lost. A
// line that the disk took only in part ends where it is; the next one begins on a line of its own.
void remote_audit_append(const char *path, const char *line, size_t len);
