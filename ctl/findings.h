// findings.h - what "check" finds, collected to be shown at its end. One thread.
#pragma once

enum Severity { SEVERITY_NOTE = 0, SEVERITY_WARNING = 1, SEVERITY_FATAL = 2 }; // fatal: the agent would not come online

// Keeps a finding: what is wrong, and what to do. Memory is that of the process.
void finding_add(Severity severity, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Collects the lines that the agent's own code would log: those of warnings and errors become findings with advice, and
// what they say of keys of config.ini is noted. findings_listen_no_more: they are dropped.
void findings_listen(void);
void findings_listen_no_more(void);

// The agent's parser found the key in config.ini / the default that it took instead, "" when it did not say.
bool finding_is_key_set(const char *key);
const char *finding_default_of(const char *key);

// Prints the findings and a last line. The exit status of "check".
int findings_print(void);
