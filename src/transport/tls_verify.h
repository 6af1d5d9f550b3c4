// tls_verify.h - whether the peer of a TLS connection is NM, by the keys [nm_tls] of config.ini.
// Files are read again for each connection: a new CA or certificate needs no restart, and one that is gone refuses.
// Any thread.
#pragma once

struct TlsPolicy;
struct ssl_st;

// NM is verified: ca_file, server_name or pin_sha256 is set, or the section is unusable. Then no connection to NM is
// plain.
bool tls_verify_is_on(void);

// A connection to host in plain text is refused, which one error line says; false, and silent, when NM is not verified.
bool tls_plain_is_refused(const char *host);

// What [nm_tls] asks of one connection to host. 0 with *policy null when no key is set; 0 with a policy that the caller
// frees after the session; -1 (logged) without memory.
int tls_policy_new(const char *host, TlsPolicy **policy);
void tls_policy_free(TlsPolicy *policy); // null: nothing

// Makes the handshake of ssl, not begun yet, subject to the policy, which has to live as long as ssl. 0, or -1 with one
// error line: a file cannot be used, or the section.
int tls_policy_apply(TlsPolicy *policy, struct ssl_st *ssl);

// Milliseconds that the whole handshake may take; -1: without limit.
int tls_policy_handshake_ms(const TlsPolicy *policy);

// After the last step of a handshake: the peer was judged and is NM, or need not be.
bool tls_policy_is_met(const TlsPolicy *policy);

// The one error line of a handshake that failed. reason null: that of the verification, or of the calling thread's last
// failed call, with its errno in call_errno.
void tls_policy_refusal_log(const TlsPolicy *policy, const char *reason, int call_errno);
