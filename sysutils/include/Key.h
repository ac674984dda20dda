#pragma once

#include <string>

#include "OpenSSLUtils.h"

// A private key read from a PEM file, such as the device key. Failures leave their reason
// in `error`, which a later success does not clear.
class Key {
  public:
    Key() = default;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    // Loads a PEM private key of any type OpenSSL reads; an encrypted key fails. A failed
    // load leaves the object empty.
    bool load_private_pem(const char* path);
    // The public half as a PEM SubjectPublicKeyInfo block, or an empty string.
    std::string get_public_pem();
    void clear();

    std::string error;
    OpenSSLPtr<EVP_PKEY> pkey;
};
