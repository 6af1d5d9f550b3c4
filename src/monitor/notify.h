// notify.h - messages to a supervisor that listens on a datagram socket: lines of the form NAME=value. Thread of the
// monitor only.
#pragma once

// Sends the message to the socket at path; a leading '@' is an abstract name. Never waits. 0, or -1; the first failure
// of a row is a warning, the others are silent.
int notify_send(const char *path, const char *message);
