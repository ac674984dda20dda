#pragma once

#include <string>

#include "DeviceInfo.h"
#include "OpenSSLUtils.h"

class Key;

// The PKCS#10 request with which the device asks for its client certificate: the device
// identity as subject, signed with SHA-256 by the device key. Failures leave their reason
// in `error`, which a later success does not clear.
class CertificateSignRequest {
  public:
    CertificateSignRequest() = default;
    CertificateSignRequest(const CertificateSignRequest&) = delete;
    CertificateSignRequest& operator=(const CertificateSignRequest&) = delete;

    // Replaces any request held. After a failure the object may hold a partly built
    // request, which must not be used.
    bool create(const char* key_file, const DeviceInfo& info);
    // The same with a key already loaded, so that one read of the key file serves a whole
    // enrollment.
    bool create(const Key& key, const DeviceInfo& info);
    // The request as a PEM block, or an empty string.
    std::string get_pem();
    void clear();

    std::string error;
    OpenSSLPtr<X509_REQ> req;
};
