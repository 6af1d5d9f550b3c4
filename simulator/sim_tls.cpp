#include "sim_tls.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <stdlib.h>

static X509 *self_signed(EVP_PKEY *key)
{
    X509 *cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -24L * 3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME *name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, (const unsigned char *)"nm simulator", -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key, EVP_sha256());
    return cert;
}

SSL_CTX *sim_tls_server()
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *cert = key ? self_signed(key) : nullptr;
    if (!context || !cert || SSL_CTX_use_certificate(context, cert) != 1 || SSL_CTX_use_PrivateKey(context, key) != 1) {
        fprintf(stderr, "simulator: no certificate\n");
        abort();
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    X509_free(cert);
    EVP_PKEY_free(key);
    return context;
}
