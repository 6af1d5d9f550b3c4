// sim_cert.h - keys (EC P-256, made in a millisecond) and certificates for simulators and tests. Any thread.
#pragma once

#include <memory>
#include <openssl/x509.h>
#include <string>

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
SimCert sim_cert_make(const SimCertSpec &spec, const SimCert *issuer = nullptr);

std::string sim_cert_pem(const SimCert &cert);
std::string sim_key_pem(const SimCert &cert);
// The public key as [nm_tls] pin_sha256 has it.
std::string sim_cert_pin(const SimCert &cert);
