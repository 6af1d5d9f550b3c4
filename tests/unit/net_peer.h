// net_peer.h - what tests of the transport need at the other end: loopback sockets, a TLS server, captured log lines.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "runtime/plugin_info.h"
#include "runtime/stop.h"

// Log lines of work, all levels, as they appear on standard output.
template <class Work> std::string log_of(Work work)
{
    g_log_std = 1;
    g_log_level = 8;
    testing::internal::CaptureStdout();
    work();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

inline void expect_in_order(const std::string &log, const std::vector<std::string> &texts)
{
    size_t at = 0;
    for (const std::string &text : texts) {
        size_t found = log.find(text, at);
        ASSERT_NE(std::string::npos, found) << "missing, or out of order: " << text << "\nin:\n" << log;
        at = found + text.size();
    }
}

inline bool has_text(const std::string &log, const char *text)
{
    return log.find(text) != std::string::npos;
}

// As the process does at start-up.
inline void start_process_once()
{
    signal(SIGPIPE, SIG_IGN);
    stop_init(nullptr);
}

inline int bound_socket(int type, std::string *port, int recv_buf_size = 0)
{
    int fd = socket(AF_INET, type, 0);
    if (recv_buf_size > 0) // before listen: accepted sockets inherit it
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &recv_buf_size, sizeof(recv_buf_size));
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(address);
    EXPECT_EQ(0, bind(fd, (struct sockaddr *)&address, len));
    EXPECT_EQ(0, getsockname(fd, (struct sockaddr *)&address, &len));
    *port = std::to_string(ntohs(address.sin_port));
    return fd;
}

inline int listen_socket(std::string *port, int recv_buf_size = 0)
{
    int fd = bound_socket(SOCK_STREAM, port, recv_buf_size);
    EXPECT_EQ(0, listen(fd, 16));
    return fd;
}

inline bool readable_within(int fd, int timeout_ms)
{
    struct pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, timeout_ms) > 0;
}

// Up to len bytes; fewer at the end of the stream or after 5 s of silence.
inline std::string read_upto(int fd, size_t len)
{
    std::string data(len, '\0');
    size_t got = 0;
    while (got < len && readable_within(fd, 5000)) {
        ssize_t count = recv(fd, &data[got], len - got, 0);
        if (count <= 0)
            break;
        got += (size_t)count;
    }
    data.resize(got);
    return data;
}

inline int open_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; fd++)
        count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

// A TLS 1.2 server with a certificate of its own, one connection.
struct TlsPeer {
    SSL_CTX *ctx;
    SSL *ssl;
    int fd;
};

inline X509 *self_signed(EVP_PKEY *key)
{
    X509 *cert = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC, (const unsigned char *)"nm", -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(cert));
    X509_sign(cert, key, EVP_sha256());
    return cert;
}

// An RSA key of 1024 bits: quick to make. signatures: the only kinds the server offers, null for its defaults.
inline TlsPeer tls_peer_new(const char *signatures = nullptr)
{
    TlsPeer peer = {};
    peer.fd = -1;
    peer.ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_security_level(peer.ctx, 0);
    if (signatures) {
        EXPECT_EQ(1, SSL_CTX_set1_sigalgs_list(peer.ctx, signatures));
    }
    EVP_PKEY *key = EVP_RSA_gen(1024);
    X509 *cert = self_signed(key);
    EXPECT_EQ(1, SSL_CTX_use_certificate(peer.ctx, cert));
    EXPECT_EQ(1, SSL_CTX_use_PrivateKey(peer.ctx, key));
    X509_free(cert);
    EVP_PKEY_free(key);
    return peer;
}

// Accepts from listener and makes the handshake; the peer's socket is blocking.
inline bool tls_peer_accept(TlsPeer *peer, int listener)
{
    peer->fd = accept(listener, nullptr, nullptr);
    peer->ssl = SSL_new(peer->ctx);
    SSL_set_fd(peer->ssl, peer->fd);
    return SSL_accept(peer->ssl) == 1;
}

// The record that carries text, as bytes for the wire: to be sent in pieces of the test's choice.
inline std::string tls_peer_record(TlsPeer *peer, const std::string &text)
{
    BIO *memory = BIO_new(BIO_s_mem());
    SSL_set0_wbio(peer->ssl, memory);
    SSL_write(peer->ssl, text.data(), (int)text.size());
    char *bytes = nullptr;
    long len = BIO_get_mem_data(memory, &bytes);
    return std::string(bytes, (size_t)len);
}

inline void tls_peer_free(TlsPeer *peer)
{
    SSL_free(peer->ssl);
    SSL_CTX_free(peer->ctx);
    if (peer->fd >= 0)
        close(peer->fd);
}
