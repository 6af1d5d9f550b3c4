#include "sim_cert.h"

#include <filesystem>
#include <fstream>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

static void need(bool holds)
{
    if (!holds) {
        fprintf(stderr, "simulator: no certificate\n");
        abort();
    }
}

static void extension_add(X509 *cert, int kind, const std::string &value)
{
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
    need(extension && X509_add_ext(cert, extension, -1) == 1);
    X509_EXTENSION_free(extension);
}

static void subject_set(X509 *cert, const SimCertSpec &wanted)
{
    static int s_serial = 0;
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), __atomic_add_fetch(&s_serial, 1, __ATOMIC_RELAXED));
    X509_gmtime_adj(X509_getm_notBefore(cert), wanted.from_s);
    X509_gmtime_adj(X509_getm_notAfter(cert), wanted.to_s);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_UTF8,
                               (const unsigned char *)wanted.name.c_str(), -1, -1, 0);
    if (wanted.is_ca)
        extension_add(cert, NID_basic_constraints, "critical,CA:TRUE");
    if (!wanted.usage.empty())
        extension_add(cert, NID_ext_key_usage, wanted.usage);
    if (!wanted.alt_names.empty())
        extension_add(cert, NID_subject_alt_name, wanted.alt_names);
}

SimCert sim_cert_make(const SimCertSpec &wanted, const SimCert *issuer)
{
    SimCert made = {std::shared_ptr<X509>(X509_new(), X509_free),
                    std::shared_ptr<EVP_PKEY>(EVP_EC_gen("P-256"), EVP_PKEY_free)};
    X509 *cert = made.cert.get();
    need(cert && made.key);
    subject_set(cert, wanted);
    X509_set_issuer_name(cert, X509_get_subject_name(issuer ? issuer->cert.get() : cert));
    X509_set_pubkey(cert, made.key.get());
    need(X509_sign(cert, issuer ? issuer->key.get() : made.key.get(), EVP_sha256()) > 0);
    return made;
}

static std::string text_of(BIO *bio)
{
    char *bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    std::string text(bytes, (size_t)length);
    BIO_free(bio);
    return text;
}

std::string sim_cert_pem(const SimCert &cert)
{
    BIO *bio = BIO_new(BIO_s_mem());
    need(PEM_write_bio_X509(bio, cert.cert.get()) == 1);
    return text_of(bio);
}

std::string sim_key_pem(const SimCert &cert)
{
    BIO *bio = BIO_new(BIO_s_mem());
    need(PEM_write_bio_PrivateKey(bio, cert.key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
    return text_of(bio);
}

std::string sim_cert_pin(const SimCert &cert)
{
    unsigned char *der = nullptr;
    const int length = i2d_PUBKEY(cert.key.get(), &der);
    need(length > 0);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    char pin[64];
    SHA256(der, (size_t)length, digest);
    OPENSSL_free(der);
    EVP_EncodeBlock((unsigned char *)pin, digest, sizeof(digest));
    return pin;
}

SimCertDir::SimCertDir() : path("/tmp/certificates_XXXXXX")
{
    need(mkdtemp(&path[0]) != nullptr);
}

SimCertDir::~SimCertDir()
{
    std::error_code error;
    std::filesystem::remove_all(path, error);
}

void SimCertDir::make(const std::string &name, const SimCertSpec &wanted, const std::string &issuer)
{
    made[name] = sim_cert_make(wanted, issuer.empty() ? nullptr : &made.at(issuer));
    write(name, sim_cert_pem(made[name]));
    write(name + ".key", sim_key_pem(made[name]));
    need(chmod(file(name + ".key").c_str(), 0600) == 0);
}

void SimCertDir::write(const std::string &name, const std::string &text) const
{
    need((std::ofstream(file(name)) << text << std::flush).good());
}

std::string SimCertDir::file(const std::string &name) const
{
    return path + "/" + name;
}

SimTlsFiles SimCertDir::server(const std::string &name, const std::string &client_ca) const
{
    return {file(name), file(name + ".key"), client_ca.empty() ? "" : file(client_ca)};
}
