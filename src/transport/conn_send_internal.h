// conn_send_internal.h - the engine of all sends, for tests.
#pragma once

#include "transport/conn_send.h"

// tcp_send that also counts the bytes accepted by the kernel or the TLS session.
int tcp_send_counted(const SocketConn *conn, const void *buf, size_t len, size_t *accepted);
