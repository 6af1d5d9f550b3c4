// sim_tls.h - the server side of TLS, with a certificate made at the start. The agent does not verify it.
#pragma once

#include <openssl/ssl.h>

// A server context for TLS 1.2 and later with a new self-signed certificate. The caller frees it (SSL_CTX_free). Any
// thread.
SSL_CTX *sim_tls_server();
