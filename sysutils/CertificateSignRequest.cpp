#include "CertificateSignRequest.h"

#include <glib.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "Key.h"

namespace {

bool add_subject_entry(X509_NAME* name, const char* field, const std::string& value) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>(value.data()),
                                      static_cast<int>(value.size()), -1, 0) == 1;
}

// The server reads the identity from the subject in this order; the serial number stands
// both as common name and as serial number attribute.
bool add_subject(X509_REQ* req, const DeviceInfo& info) {
    X509_NAME* const name = X509_REQ_get_subject_name(req);
    return name && add_subject_entry(name, "O", info.brand) &&
           add_subject_entry(name, "OU", "ZelPlayer") &&
           add_subject_entry(name, "dnQualifier", info.model) &&
           add_subject_entry(name, "CN", info.serial) &&
           add_subject_entry(name, "serialNumber", info.serial);
}

}  // namespace

bool CertificateSignRequest::create(const char* key_file, const DeviceInfo& info) {
    g_return_val_if_fail(key_file != nullptr, false);

    ERR_clear_error();
    clear();

    Key key;
    if (!key.load_private_pem(key_file)) {
        error = std::string("failed to load private key file '") + key_file + "': " + key.error;
        return false;
    }
    return create(key, info);
}

bool CertificateSignRequest::create(const Key& key, const DeviceInfo& info) {
    ERR_clear_error();
    clear();

    const EVP_MD* const md = EVP_get_digestbyname("SHA256");
    if (!md) {
        error = get_openssl_error();
        return false;
    }
    req.reset(X509_REQ_new());
    // Version 0 is PKCS#10 version 1, the only one defined.
    const bool ok = req && X509_REQ_set_version(req.get(), 0) == 1 &&
                    add_subject(req.get(), info) &&
                    X509_REQ_set_pubkey(req.get(), key.pkey.get()) == 1 &&
                    X509_REQ_sign(req.get(), key.pkey.get(), md) != 0;
    if (!ok) {
        error = get_openssl_error();
        return false;
    }
    return true;
}

std::string CertificateSignRequest::get_pem() {
    if (!req) {
        error = "no certificate signing request loaded";
        return {};
    }
    return write_pem_text([this](BIO* bio) { return PEM_write_bio_X509_REQ(bio, req.get()); },
                          error);
}

void CertificateSignRequest::clear() {
    req.reset();
}
