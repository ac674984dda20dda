#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>

// The text of the oldest error queued for this thread by OpenSSL, which is taken off the
// queue. With an empty queue this is OpenSSL's text for error code 0.
std::string get_openssl_error();

// OpenSSL's compiled-in CA bundle path, or an empty string when it has none.
std::string get_openssl_default_cert_file();

// Frees each OpenSSL handle type with its own free function.
struct OpenSSLDeleter {
    void operator()(BIO* bio) const;
    void operator()(EVP_PKEY* pkey) const;
    void operator()(X509* cert) const;
    void operator()(X509_STORE* store) const;
    void operator()(X509_REQ* req) const;
};

template <typename T>
using OpenSSLPtr = std::unique_ptr<T, OpenSSLDeleter>;
