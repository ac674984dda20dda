#pragma once

#include <string>

#include "Key.h"
#include "OpenSSLUtils.h"

// An X.509 certificate, such as one the enrollment server issues for a cloud service.
// Failures leave their reason in `error`, which a later success does not clear.
class Certificate {
  public:
    Certificate() = default;
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    // Both loads take the first PEM certificate and ignore whatever follows it.
    bool load_pem(const std::string& pem);
    bool load_pem_file(const char* path);
    // True when the certificate's public key belongs to the private key.
    bool check_private_key(const Key& key);
    bool check_private_key(const char* key_path);
    void clear();

    std::string error;
    OpenSSLPtr<X509> cert;
};
