#pragma once

#include <openssl/x509.h>

#include <functional>
#include <memory>
#include <string>

// The text of the oldest error queued for this thread by OpenSSL, which is taken off the
// queue. With an empty queue this is OpenSSL's text for error code 0.
std::string get_openssl_error();

// OpenSSL's compiled-in CA bundle path, or an empty string when it has none.
std::string get_openssl_default_cert_file();

// The PEM text that `write` (an OpenSSL PEM writer, 1 on success) puts into a memory BIO.
// On failure an empty string, with OpenSSL's reason in `error`. Clears the thread's error
// queue first.
std::string write_pem_text(const std::function<int(BIO*)>& write, std::string& error);

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
