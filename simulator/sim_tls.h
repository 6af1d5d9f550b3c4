// sim_tls.h - the server side of TLS: with a certificate of the caller's, or with one that is made at the start, which
// an agent takes that verifies nothing.
#pragma once

#include <openssl/ssl.h>
#include <string>

// PEM files. cert empty: a new self-signed certificate.
struct SimTlsFiles {
    std::string cert; // with the chain behind it, if any
    std::string key;
    std::string client_ca; // clients have to show a certificate of this CA; empty: they need none
};

// A server context for TLS 1.2 and later, which the caller frees (SSL_CTX_free); nullptr, with a message on stderr,
// when a file cannot be used. Any thread.
SSL_CTX *sim_tls_server(const SimTlsFiles &files = SimTlsFiles());
