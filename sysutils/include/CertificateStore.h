#pragma once

#include <string>

#include "OpenSSLUtils.h"

// A set of trusted CA certificates. Failures leave their reason in `error`, which a later
// success does not clear.
class CertificateStore {
  public:
    CertificateStore() = default;
    CertificateStore(const CertificateStore&) = delete;
    CertificateStore& operator=(const CertificateStore&) = delete;

    // Loads every certificate of a PEM bundle into a new store. A failed load still
    // keeps the store with what was read before the failure, so go by the result.
    bool load_pem_file(const char* path);
    void clear();

    std::string error;
    OpenSSLPtr<X509_STORE> store;
};
