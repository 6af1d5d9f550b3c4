#include "transport/tls_verify.h"
#include "transport/tls_verify_internal.h"

#include <errno.h>
#include <openssl/err.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/plugin_info.h"
#include "runtime/text.h"

constexpr int SECURITY_LEVEL = 2;                            // of the library: 112 bits, no SHA-1
constexpr size_t PIN_LEN = 44;                               // base64 of 32 bytes
constexpr size_t PIN_TEXT_SIZE = PIN_LEN + 1;                // with its NUL
static const char k_blanks[] = " \t";                        // between pins
static_assert(SHA256_DIGEST_LENGTH == 32, "a pin's length"); // beside PIN_LEN

std::atomic<int64_t> g_tls_clock_for_test{0};
static std::atomic<bool> s_key_warned{false}; // once per process

struct TlsPolicy {
    NmTlsOptions options;
    char host[HOST_TEXT_SIZE]; // that was dialled
    // Of the judgement:
    bool is_accepted;
    char reason[128]; // of a refusal; empty: the handshake failed otherwise
    char subject[256];
};

static bool wants_verification(const NmTlsOptions *options)
{
    return options->ca_file[0] || options->server_name[0] || options->pin_sha256[0] || options->is_unusable;
}

static bool has_key(const NmTlsOptions *options)
{
    return wants_verification(options) || options->client_cert[0] || options->client_key[0] ||
           options->handshake_timeout_s > 0;
}

static NmTlsOptions options_of_now(void)
{
    Options options;
    options_get(&options);
    return options.nm_tls;
}

bool tls_verify_is_on(void)
{
    NmTlsOptions options = options_of_now();
    return wants_verification(&options);
}

bool tls_plain_is_refused(const char *host)
{
    if (!tls_verify_is_on())
        return false;
    log_error("Plain text to %s refused, [nm_tls] asks for TLS!", host);
    return true;
}

int tls_policy_new(const char *host, TlsPolicy **policy)
{
    *policy = nullptr;
    NmTlsOptions options = options_of_now();
    if (!has_key(&options))
        return 0;
    TlsPolicy *made = (TlsPolicy *)calloc(1, sizeof(TlsPolicy));
    if (!made) {
        log_error("malloc failed!");
        return -1;
    }
    made->options = options;
    (void)text_set(made->host, host);
    (void)text_set(made->subject, "none");
    *policy = made;
    return 0;
}

void tls_policy_free(TlsPolicy *policy)
{
    free(policy);
}

// The calling thread's last failed call. A system error has its number in the queue, not a text.
static const char *queue_reason(int call_errno, ErrorText *text)
{
    unsigned long error = ERR_get_error();
    if (error == 0 && call_errno == 0)
        return "the peer has closed the connection";
    if (error == 0 || ERR_SYSTEM_ERROR(error)) {
        *text = error_text(error == 0 ? call_errno : ERR_GET_REASON(error));
        return text->text;
    }
    const char *reason = ERR_reason_error_string(error);
    return reason ? reason : "unknown";
}

void tls_policy_refusal_log(const TlsPolicy *policy, const char *reason, int call_errno)
{
    ErrorText text;
    if (!reason)
        reason = policy->reason[0] ? policy->reason : queue_reason(call_errno, &text);
    log_error("TLS with %s refused: %s, peer's certificate: %s", policy->host, reason, policy->subject);
}

// 0, or -1 (logged) when a call that read path failed.
static int file_check(const char *key, const char *path, int result)
{
    if (result == 1)
        return 0;
    ErrorText text;
    log_error("[nm_tls] %s: '%s' cannot be used: %s!", key, path, queue_reason(0, &text));
    return -1;
}

// Base64 of the SHA-256 of the certificate's SubjectPublicKeyInfo. 0, or -1 when it has none.
static int pin_make(X509 *certificate, char (&pin)[PIN_TEXT_SIZE])
{
    unsigned char *der = nullptr;
    int len = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    if (len <= 0)
        return -1;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(der, (size_t)len, digest);
    OPENSSL_free(der);
    return EVP_EncodeBlock((unsigned char *)pin, digest, sizeof(digest)) == (int)PIN_LEN ? 0 : -1;
}

static bool has_pin(const char *pins, const char *wanted)
{
    for (const char *pin = pins + strspn(pins, k_blanks); *pin; pin += strspn(pin, k_blanks)) {
        size_t len = strcspn(pin, k_blanks);
        if (len == PIN_LEN && memcmp(pin, wanted, PIN_LEN) == 0)
            return true;
        pin += len;
    }
    return false;
}

static bool pin_is_right(TlsPolicy *policy, X509 *certificate)
{
    char pin[PIN_TEXT_SIZE] = "none";
    if (pin_make(certificate, pin) == 0 && has_pin(policy->options.pin_sha256, pin))
        return true;
    (void)text_fmt(policy->reason, "public key %s is not in pin_sha256", pin);
    return false;
}

static bool chain_is_right(TlsPolicy *policy, X509_STORE_CTX *store)
{
    if (X509_verify_cert(store) == 1)
        return true;
    (void)text_set(policy->reason, X509_verify_cert_error_string(X509_STORE_CTX_get_error(store)));
    return false;
}

// Called by the library once it has the peer's certificates, in each handshake of the session: before it sends a client
// certificate, and before anything of ours.
static int peer_judge(X509_STORE_CTX *store, void *arg)
{
    TlsPolicy *policy = (TlsPolicy *)arg;
    X509 *certificate = X509_STORE_CTX_get0_cert(store);
    policy->is_accepted = false;
    X509_NAME_oneline(X509_get_subject_name(certificate), policy->subject, sizeof(policy->subject));
    if (policy->options.pin_sha256[0] && !pin_is_right(policy, certificate)) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    if (policy->options.ca_file[0] && !chain_is_right(policy, store))
        return 0;
    X509_STORE_CTX_set_error(store, X509_V_OK);
    policy->is_accepted = true;
    return 1;
}

// A box without a battery starts in 1970; until its clock is set, dates prove nothing.
static bool dates_count(const NmTlsOptions *options)
{
    int64_t now = g_tls_clock_for_test;
    if (now == 0)
        now = (int64_t)time(nullptr);
    return options->check_time && now > PLUGIN_BUILD_TIME;
}

// 0, or -1 (logged) without a name to expect.
static int name_expect(const TlsPolicy *policy, SSL *ssl)
{
    const char *name = policy->options.server_name[0] ? policy->options.server_name : policy->host;
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl);
    if (name[0] && X509_VERIFY_PARAM_set1_ip_asc(param, name) == 1)
        return 0;
    ERR_clear_error();
    if (!name[0] || X509_VERIFY_PARAM_set1_host(param, name, 0) != 1 || SSL_set_tlsext_host_name(ssl, name) != 1) {
        tls_policy_refusal_log(policy, "no server name to expect", 0);
        return -1;
    }
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return 0;
}

static int ca_apply(const TlsPolicy *policy, SSL *ssl)
{
    const NmTlsOptions *options = &policy->options;
    ERR_clear_error();
    int loaded = SSL_CTX_load_verify_locations(SSL_get_SSL_CTX(ssl), options->ca_file, nullptr);
    if (file_check("ca_file", options->ca_file, loaded) != 0)
        return -1;
    if (!dates_count(options))
        X509_VERIFY_PARAM_set_flags(SSL_get0_param(ssl), X509_V_FLAG_NO_CHECK_TIME);
    return name_expect(policy, ssl);
}

static int verification_apply(TlsPolicy *policy, SSL *ssl)
{
    const NmTlsOptions *options = &policy->options;
    if (options->is_unusable || (!options->ca_file[0] && !options->pin_sha256[0])) {
        tls_policy_refusal_log(policy,
                               options->is_unusable ? "[nm_tls] cannot be used as it stands"
                                                    : "server_name needs ca_file or pin_sha256",
                               0);
        return -1;
    }
    SSL_set_security_level(ssl, SECURITY_LEVEL);
    SSL_clear_options(ssl, SSL_OP_LEGACY_SERVER_CONNECT);
    SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(SSL_get_SSL_CTX(ssl), peer_judge, policy);
    return options->ca_file[0] ? ca_apply(policy, ssl) : 0;
}

static void key_rights_check(const char *path)
{
    struct stat status;
    if (stat(path, &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) && !s_key_warned.exchange(true))
        log_warn("[nm_tls] client_key: '%s' can be read by others than its owner!", path);
}

// Nobody is there to type the passphrase of an encrypted key.
static int passphrase_refuse(char *, int, int, void *)
{
    return -1;
}

static int client_apply(const NmTlsOptions *options, SSL *ssl)
{
    const char *cert = options->client_cert, *key = options->client_key;
    if (!cert[0] || !key[0]) {
        log_error("[nm_tls] client_cert and client_key need each other!");
        return -1;
    }
    SSL_set_default_passwd_cb(ssl, passphrase_refuse);
    ERR_clear_error();
    if (file_check("client_cert", cert, SSL_use_certificate_chain_file(ssl, cert)) != 0 ||
        file_check("client_key", key, SSL_use_PrivateKey_file(ssl, key, SSL_FILETYPE_PEM)) != 0)
        return -1;
    key_rights_check(key);
    return 0;
}

int tls_policy_apply(TlsPolicy *policy, SSL *ssl)
{
    const NmTlsOptions *options = &policy->options;
    if (wants_verification(options) && verification_apply(policy, ssl) != 0)
        return -1;
    return options->client_cert[0] || options->client_key[0] ? client_apply(options, ssl) : 0;
}

int tls_policy_handshake_ms(const TlsPolicy *policy)
{
    return policy && policy->options.handshake_timeout_s > 0 ? policy->options.handshake_timeout_s * 1000 : -1;
}

bool tls_policy_is_met(const TlsPolicy *policy)
{
    return policy->is_accepted || !wants_verification(&policy->options);
}
