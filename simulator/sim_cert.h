// sim_cert.h - keys (EC P-256, made in a millisecond) and certificates for simulators and tests. Any thread.
#pragma once

#include <map>
#include <memory>
#include <openssl/x509.h>
#include <string>

#include "sim_tls.h"

struct SimCert {
    std::shared_ptr<X509> cert;
    std::shared_ptr<EVP_PKEY> key;
};

struct SimCertSpec {
    std::string name;      // CN of the subject
    std::string alt_names; // as openssl.cnf has them, "DNS:nm.example,IP:127.0.0.1"; empty: none
    bool is_ca = false;
    long from_s = -24L * 3600; // valid from and to, from now on
    long to_s = 365L * 24 * 3600;
    std::string usage = ""; // extendedKeyUsage; empty: any
};

// A certificate with a new key. issuer null: self-signed. Aborts with a message when the library fails.
SimCert sim_cert_make(const SimCertSpec &wanted, const SimCert *issuer = nullptr);

std::string sim_cert_pem(const SimCert &cert);
std::string sim_key_pem(const SimCert &cert);
// The public key as [nm_tls] pin_sha256 has it.
std::string sim_cert_pin(const SimCert &cert);

// Certificates as PEM files NAME and NAME.key, in a temporary directory that goes away with this.
struct SimCertDir {
    std::string path;
    std::map<std::string, SimCert> made; // by name

    SimCertDir();
    SimCertDir(const SimCertDir &) = delete;
    ~SimCertDir();
    // issuer: the name of one made before; empty: self-signed.
    void make(const std::string &name, const SimCertSpec &wanted, const std::string &issuer = "");
    void write(const std::string &name, const std::string &text) const;
    std::string file(const std::string &name) const;
    // A server with this certificate, which asks for one of client_ca unless that is empty.
    SimTlsFiles server(const std::string &name, const std::string &client_ca = "") const;
};
