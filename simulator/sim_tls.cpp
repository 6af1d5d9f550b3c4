#include "sim_tls.h"

#include <openssl/err.h>

#include "sim_cert.h"

static bool own_certificate_use(SSL_CTX *context)
{
    SimCertSpec wanted;
    wanted.name = "nm simulator";
    const SimCert own = sim_cert_make(wanted);
    return SSL_CTX_use_certificate(context, own.cert.get()) == 1 && SSL_CTX_use_PrivateKey(context, own.key.get()) == 1;
}

static bool files_use(SSL_CTX *context, const SimTlsFiles &files)
{
    return SSL_CTX_use_certificate_chain_file(context, files.cert.c_str()) == 1 &&
           SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) == 1;
}

static bool clients_verify(SSL_CTX *context, const std::string &ca)
{
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return SSL_CTX_load_verify_locations(context, ca.c_str(), nullptr) == 1;
}

SSL_CTX *sim_tls_server(const SimTlsFiles &files)
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    const bool ready = context && (files.cert.empty() ? own_certificate_use(context) : files_use(context, files)) &&
                       (files.client_ca.empty() || clients_verify(context, files.client_ca));
    if (!ready) {
        fprintf(stderr, "simulator: certificate, key or CA cannot be used\n");
        ERR_print_errors_fp(stderr);
        SSL_CTX_free(context);
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    return context;
}
