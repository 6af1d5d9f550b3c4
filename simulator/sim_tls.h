// sim_tls.h - the server side of TLS with a certificate made at the start. Nobody verifies it: the agent encrypts only.
#pragma once

#include <openssl/ssl.h>

// A server context with a fresh self-signed certificate, of TLS 1.2 and up. The caller frees it (SSL_CTX_free).
SSL_CTX *sim_tls_server();
